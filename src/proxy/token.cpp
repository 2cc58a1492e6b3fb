#include "proxy/token.h"

#include <algorithm>
#include <array>

#include "crypto/digest.h"

namespace sorvane::proxy {
namespace {

constexpr std::string_view kAlphabet = "abcdefghijklmnopqrstuvwxyz234567";
constexpr std::string_view kPrefix = "qzt_";
constexpr std::array kKinds{TokenKind::local, TokenKind::live, TokenKind::test};

bool isBase32(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return (c >= 'a' && c <= 'z') || (c >= '2' && c <= '7'); });
}

/// The first 35 bits of SHA-256 over the text, which guard against a mistyped or cut token.
std::array<char, kSuffixCharacters> suffixOf(std::string_view text) {
  const crypto::Sha256Digest digest = crypto::sha256(base::bytesOf(text));
  std::uint64_t bits = 0;
  for (std::size_t i = 0; i < 5; ++i) bits = bits << 8 | digest[i];
  std::array<char, kSuffixCharacters> suffix{};
  for (std::size_t i = 0; i < suffix.size(); ++i) suffix[i] = kAlphabet[bits >> (35 - 5 * i) & 31];
  return suffix;
}

}  // namespace

std::string_view word(TokenKind kind) {
  switch (kind) {
    case TokenKind::live:
      return "live";
    case TokenKind::test:
      return "test";
    case TokenKind::local:
      return "local";
  }
  return "";
}

base::SecretText base32(std::span<const std::uint8_t> bytes) {
  base::SecretText text;
  text.reserve((bytes.size() * 8 + 4) / 5);
  unsigned buffer = 0, bits = 0;
  for (const std::uint8_t byte : bytes) {
    buffer = (buffer << 8 | byte) & 0xFFFU;
    for (bits += 8; bits >= 5; bits -= 5) text.push_back(kAlphabet[buffer >> (bits - 5) & 31]);
  }
  if (bits > 0) text.push_back(kAlphabet[buffer << (5 - bits) & 31]);
  return text;
}

base::SecretText tokenText(TokenKind kind, std::string_view lookupId, std::string_view secret) {
  base::SecretText text;
  text.reserve(96);
  for (const std::string_view part :
       {kPrefix, word(kind), std::string_view("_"), lookupId, std::string_view("_"), secret})
    text.append(part);
  const auto suffix = suffixOf(text.view());
  text.append({suffix.data(), suffix.size()});
  return text;
}

std::optional<TokenParts> parseToken(std::string_view text) {
  if (!text.starts_with(kPrefix)) return std::nullopt;
  for (const TokenKind kind : kKinds) {
    std::string_view rest = text.substr(kPrefix.size());
    if (!rest.starts_with(word(kind))) continue;
    rest.remove_prefix(word(kind).size());
    constexpr std::size_t kSecretAt = kLookupCharacters + 2;
    if (rest.size() != kSecretAt + kTokenSecretCharacters + kSuffixCharacters || rest[0] != '_' ||
        rest[kSecretAt - 1] != '_') {
      return std::nullopt;
    }
    const TokenParts parts{kind, rest.substr(1, kLookupCharacters), rest.substr(kSecretAt, kTokenSecretCharacters)};
    if (!isBase32(parts.lookupId) || !isBase32(rest.substr(kSecretAt))) return std::nullopt;
    const auto suffix = suffixOf(text.substr(0, text.size() - kSuffixCharacters));
    if (!base::sameInConstantTime(text.substr(text.size() - kSuffixCharacters), {suffix.data(), suffix.size()}))
      return std::nullopt;
    return parts;
  }
  return std::nullopt;
}

}  // namespace sorvane::proxy
