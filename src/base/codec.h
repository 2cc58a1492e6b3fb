#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/secret_text.h"

namespace sorvane::base {

/// Hexadecimal digits of `bytes`, two a byte, no separators.
std::string hexLower(std::span<const std::uint8_t> bytes);
std::string hexUpper(std::span<const std::uint8_t> bytes);
/// Reads an even number of hexadecimal digits of either case; anything else is nullopt.
std::optional<Bytes> parseHex(std::string_view text);

/// Base64 of RFC 4648 section 4 (standard alphabet, padded).
std::string base64(std::span<const std::uint8_t> bytes);
/// How many characters `base64` writes for so many bytes.
constexpr std::size_t base64Size(std::size_t bytes) {
  return (bytes + 2) / 3 * 4;
}
/// The same written to `out`, which has room for base64Size of them.
void base64Into(std::span<const std::uint8_t> bytes, char* out);
/// Base64 of RFC 4648 section 5 (URL-safe alphabet), without padding.
std::string base64Url(std::span<const std::uint8_t> bytes);
/// Reads canonical padded standard base64: no white space, full padding, zero trailing bits; anything else is nullopt.
std::optional<Bytes> parseBase64(std::string_view text);

/// Percent-encoding of RFC 3986: unreserved characters stand, every other byte becomes %XX in upper case.
std::string percentEncode(std::string_view text);

}  // namespace sorvane::base
