#include "base/codec.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace sorvane::base {
namespace {

constexpr std::string_view kStandard = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kUrlSafe = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr std::string_view kHexLower = "0123456789abcdef";
constexpr std::string_view kHexUpper = "0123456789ABCDEF";

std::string hex(std::span<const std::uint8_t> bytes, std::string_view digits) {
  std::string text(bytes.size() * 2, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text[2 * i] = digits[bytes[i] >> 4];
    text[2 * i + 1] = digits[bytes[i] & 15];
  }
  return text;
}

std::string encode64(std::span<const std::uint8_t> bytes, std::string_view alphabet, bool padded) {
  std::string text((bytes.size() + 2) / 3 * 4, '=');
  std::size_t out = 0, i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t group = static_cast<std::uint32_t>(bytes[i] << 16 | bytes[i + 1] << 8 | bytes[i + 2]);
    text[out++] = alphabet[group >> 18];
    text[out++] = alphabet[group >> 12 & 63];
    text[out++] = alphabet[group >> 6 & 63];
    text[out++] = alphabet[group & 63];
  }
  if (const std::size_t rest = bytes.size() - i; rest > 0) {
    const std::uint32_t group = static_cast<std::uint32_t>(bytes[i] << 16 | (rest == 2 ? bytes[i + 1] << 8 : 0));
    text[out++] = alphabet[group >> 18];
    text[out++] = alphabet[group >> 12 & 63];
    if (rest == 2) text[out++] = alphabet[group >> 6 & 63];
  }
  if (!padded) text.resize(out);
  return text;
}

/// The two digits of each 12-bit group, so that three bytes take two look-ups.
constexpr std::array<std::array<char, 2>, 4096> pairTable() {
  std::array<std::array<char, 2>, 4096> table{};
  for (std::size_t i = 0; i < table.size(); ++i) table[i] = {kStandard[i >> 6], kStandard[i & 63]};
  return table;
}

constexpr std::uint32_t kNoDigit = 1U << 24;

/// For each place in a group of four digits the bits that a character puts there, or kNoDigit.
constexpr std::array<std::array<std::uint32_t, 256>, 4> quadTables() {
  std::array<std::array<std::uint32_t, 256>, 4> tables{};
  for (std::size_t place = 0; place < 4; ++place) {
    tables[place].fill(kNoDigit);
    for (std::size_t i = 0; i < kStandard.size(); ++i) {
      tables[place][static_cast<unsigned char>(kStandard[i])] = static_cast<std::uint32_t>(i << (18 - 6 * place));
    }
  }
  return tables;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string hexLower(std::span<const std::uint8_t> bytes) {
  return hex(bytes, kHexLower);
}
std::string hexUpper(std::span<const std::uint8_t> bytes) {
  return hex(bytes, kHexUpper);
}
std::string base64(std::span<const std::uint8_t> bytes) {
  std::string text(base64Size(bytes.size()), '\0');
  base64Into(bytes, text.data());
  return text;
}
void base64Into(std::span<const std::uint8_t> bytes, char* out) {
  static constexpr auto kPairs = pairTable();
  while (bytes.size() >= 3) {
    const unsigned group = static_cast<unsigned>(bytes[0]) << 16 | static_cast<unsigned>(bytes[1]) << 8 | bytes[2];
    std::memcpy(out, kPairs[group >> 12].data(), 2);
    std::memcpy(out + 2, kPairs[group & 4095].data(), 2);
    out += 4;
    bytes = bytes.subspan(3);
  }
  const std::string rest = encode64(bytes, kStandard, true);
  std::copy(rest.begin(), rest.end(), out);
}
std::string base64Url(std::span<const std::uint8_t> bytes) {
  return encode64(bytes, kUrlSafe, false);
}

std::optional<Bytes> parseHex(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  Bytes bytes(text.size() / 2);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const int high = hexDigit(text[2 * i]), low = hexDigit(text[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes[i] = static_cast<std::uint8_t>(high << 4 | low);
  }
  return bytes;
}

std::optional<Bytes> parseBase64(std::string_view text) {
  static constexpr auto kTables = quadTables();
  if (text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
  Bytes bytes(text.size() / 4 * 3 - padding);
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  // Every group but a padded last one; a character that is no digit sets a bit above the 24 of the group.
  const std::size_t groups = text.size() / 4 - (padding > 0);
  std::uint32_t bad = 0;
  std::uint8_t* out = bytes.data();
  for (std::size_t i = 0; i < groups; ++i, in += 4, out += 3) {
    const std::uint32_t group = kTables[0][in[0]] | kTables[1][in[1]] | kTables[2][in[2]] | kTables[3][in[3]];
    bad |= group;
    out[0] = static_cast<std::uint8_t>(group >> 16);
    out[1] = static_cast<std::uint8_t>(group >> 8);
    out[2] = static_cast<std::uint8_t>(group);
  }
  if (padding > 0) {
    const std::uint32_t group =
        kTables[0][in[0]] | kTables[1][in[1]] | (padding == 1 ? kTables[2][in[2]] : std::uint32_t{0});
    bad |= group;
    // Bits behind the last whole byte must be zero, or several texts would stand for one value.
    if ((group & (padding == 1 ? 0xFFU : 0xFFFFU)) != 0) return std::nullopt;
    out[0] = static_cast<std::uint8_t>(group >> 16);
    if (padding == 1) out[1] = static_cast<std::uint8_t>(group >> 8);
  }
  if ((bad & kNoDigit) != 0) return std::nullopt;
  return bytes;
}

std::string percentEncode(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
                            c == '.' || c == '_' || c == '~';
    if (unreserved) {
      out += c;
    } else {
      out += '%';
      out += kHexUpper[static_cast<unsigned char>(c) >> 4];
      out += kHexUpper[static_cast<unsigned char>(c) & 15];
    }
  }
  return out;
}

}  // namespace sorvane::base
