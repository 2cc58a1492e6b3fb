#include "base/unicode.h"

#include <utf8proc.h>

#include <cstdlib>
#include <memory>

namespace sorvane::base {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

bool isContinuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

/// Length of the maximal ill-formed part at the start of `text` (Unicode 15, section 3.9, table 3-8).
std::size_t illFormedSize(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  std::size_t needed = 0;
  unsigned char low = 0x80, high = 0xBF;
  if (first >= 0xC2 && first <= 0xDF)
    needed = 1;
  else if (first >= 0xE0 && first <= 0xEF)
    needed = 2;
  else if (first >= 0xF0 && first <= 0xF4)
    needed = 3;
  else
    return 1;
  if (first == 0xE0) low = 0xA0;
  if (first == 0xED) high = 0x9F;
  if (first == 0xF0) low = 0x90;
  if (first == 0xF4) high = 0x8F;
  std::size_t size = 1;
  while (size <= needed && size < text.size() && byte(size) >= low && byte(size) <= high) {
    ++size;
    low = 0x80;
    high = 0xBF;
  }
  return size;
}

}  // namespace

Decoded decodeUtf8(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return {first, 1, true};
  std::size_t size = 0;
  char32_t value = 0;
  if ((first & 0xE0) == 0xC0)
    size = 2, value = first & 0x1F;
  else if ((first & 0xF0) == 0xE0)
    size = 3, value = first & 0x0F;
  else if ((first & 0xF8) == 0xF0)
    size = 4, value = first & 0x07;
  if (size == 0 || text.size() < size) return {0xFFFD, illFormedSize(text), false};
  for (std::size_t i = 1; i < size; ++i) {
    if (!isContinuation(byte(i))) return {0xFFFD, illFormedSize(text), false};
    value = value << 6 | (byte(i) & 0x3F);
  }
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool wellFormed = value >= kSmallest[size] && value <= 0x10FFFF && !(value >= 0xD800 && value <= 0xDFFF);
  if (!wellFormed) return {0xFFFD, illFormedSize(text), false};
  return {value, size, true};
}

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const Decoded decoded = decodeUtf8(text);
    if (!decoded.valid) return false;
    text.remove_prefix(decoded.size);
  }
  return true;
}

std::string repairedUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const Decoded decoded = decodeUtf8(text);
    out.append(decoded.valid ? text.substr(0, decoded.size) : kReplacement);
    text.remove_prefix(decoded.size);
  }
  return out;
}

std::string_view prefixOfWholeCharacters(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text;
  std::size_t end = limit;
  // A character has at most three continuation bytes; more of them are not part of one.
  for (int back = 0; back < 4 && end > 0 && isContinuation(static_cast<unsigned char>(text[end])); ++back) --end;
  return text.substr(0, isContinuation(static_cast<unsigned char>(text[end])) ? limit : end);
}

bool isWhiteSpace(char32_t c) {
  return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
}

bool isControl(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F);
}

bool isLetterOrNumber(char32_t c) {
  switch (utf8proc_category(static_cast<utf8proc_int32_t>(c))) {
    case UTF8PROC_CATEGORY_LU:
    case UTF8PROC_CATEGORY_LL:
    case UTF8PROC_CATEGORY_LT:
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
    case UTF8PROC_CATEGORY_ND:
    case UTF8PROC_CATEGORY_NL:
    case UTF8PROC_CATEGORY_NO:
      return true;
    default:  // the enumeration is the library's
      return false;
  }
}

std::size_t characterCount(std::string_view text) {
  std::size_t count = 0;
  utf8proc_int32_t state = 0;
  std::optional<char32_t> before;
  while (!text.empty()) {
    const Decoded decoded = decodeUtf8(text);
    text.remove_prefix(decoded.size);
    const bool joined = decoded.valid && before &&
                        !utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(*before),
                                                          static_cast<utf8proc_int32_t>(decoded.character), &state);
    if (!joined) ++count;
    if (!decoded.valid) state = 0;
    before = decoded.valid ? std::optional(decoded.character) : std::nullopt;
  }
  return count;
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty()) {
    const Decoded first = decodeUtf8(text);
    if (!first.valid || !isWhiteSpace(first.character)) break;
    text.remove_prefix(first.size);
  }
  while (!text.empty()) {
    std::size_t start = text.size() - 1;
    while (start > 0 && text.size() - start < 4 && isContinuation(static_cast<unsigned char>(text[start]))) --start;
    const Decoded last = decodeUtf8(text.substr(start));
    if (!last.valid || start + last.size != text.size() || !isWhiteSpace(last.character)) break;
    text = text.substr(0, start);
  }
  return text;
}

std::string nfc(std::string_view text) {
  utf8proc_uint8_t* normal = nullptr;
  const auto size =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()), static_cast<utf8proc_ssize_t>(text.size()),
                   &normal, static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
  const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(normal, &std::free);
  if (size < 0) return std::string(text);
  return std::string(reinterpret_cast<const char*>(normal), static_cast<std::size_t>(size));
}

std::optional<SecretText> nfcOfSecret(std::string_view text) {
  constexpr auto kOptions = static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE);
  constexpr std::size_t kUnit = sizeof(utf8proc_int32_t);
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  const auto length = static_cast<utf8proc_ssize_t>(text.size());
  const auto units = utf8proc_decompose(bytes, length, nullptr, 0, kOptions);
  if (units < 0) return std::nullopt;
  // In a wiped buffer of its own, one unit longer because the library ends the text with a zero byte.
  SecretText buffer;
  buffer.resize((static_cast<std::size_t>(units) + 1) * kUnit);
  auto* work = reinterpret_cast<utf8proc_int32_t*>(buffer.data());
  if (utf8proc_decompose(bytes, length, work, units, kOptions) != units) return std::nullopt;
  const auto size = utf8proc_reencode(work, units, kOptions);
  if (size < 0) return std::nullopt;
  buffer.truncate(static_cast<std::size_t>(size));
  return buffer;
}

std::size_t displayWidth(std::string_view text) {
  std::size_t width = 0;
  for (; !text.empty(); text.remove_prefix(decodeUtf8(text).size)) {
    const Decoded decoded = decodeUtf8(text);
    width += static_cast<std::size_t>(
        decoded.valid ? utf8proc_charwidth(static_cast<utf8proc_int32_t>(decoded.character)) : 1);
  }
  return width;
}

std::string escapedForDisplay(std::string_view text) {
  static constexpr std::string_view kHex = "0123456789abcdef";
  std::string out;
  while (!text.empty()) {
    const Decoded decoded = decodeUtf8(text);
    const std::string_view raw = text.substr(0, decoded.size);
    text.remove_prefix(decoded.size);
    if (!decoded.valid || decoded.character < 0x20 || decoded.character == 0x7F) {
      if (decoded.valid && decoded.character == '\n')
        out += "\\n";
      else if (decoded.valid && decoded.character == '\r')
        out += "\\r";
      else if (decoded.valid && decoded.character == '\t')
        out += "\\t";
      else
        for (const char c : raw) {
          out += "\\x";
          out += kHex[static_cast<unsigned char>(c) >> 4];
          out += kHex[static_cast<unsigned char>(c) & 15];
        }
      continue;
    }
    const auto category = utf8proc_category(static_cast<utf8proc_int32_t>(decoded.character));
    const bool hidden = category == UTF8PROC_CATEGORY_CC || category == UTF8PROC_CATEGORY_CF ||
                        category == UTF8PROC_CATEGORY_ZL || category == UTF8PROC_CATEGORY_ZP ||
                        category == UTF8PROC_CATEGORY_CO || category == UTF8PROC_CATEGORY_CN;
    if (!hidden) {
      out += decoded.character == '\\' ? std::string_view("\\\\") : raw;
      continue;
    }
    out += "\\u{";
    bool leading = true;
    for (int shift = 20; shift >= 0; shift -= 4) {
      const auto digit = static_cast<unsigned>(decoded.character >> shift & 15);
      if (leading && digit == 0 && shift > 0) continue;
      leading = false;
      out += kHex[digit];
    }
    out += '}';
  }
  return out;
}

void appendUtf8(std::string& out, char32_t character) {
  const auto tail = [&](int shift) { out += static_cast<char>(0x80 | ((character >> shift) & 0x3F)); };
  if (character < 0x80) {
    out += static_cast<char>(character);
  } else if (character < 0x800) {
    out += static_cast<char>(0xC0 | (character >> 6));
    tail(0);
  } else if (character < 0x10000) {
    out += static_cast<char>(0xE0 | (character >> 12));
    tail(6);
    tail(0);
  } else {
    out += static_cast<char>(0xF0 | (character >> 18));
    tail(12);
    tail(6);
    tail(0);
  }
}

}  // namespace sorvane::base
