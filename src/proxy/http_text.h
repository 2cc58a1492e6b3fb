#pragma once

#include <algorithm>
#include <string_view>

namespace sorvane::proxy {

// The characters of HTTP, without regard to any locale.

constexpr bool isDigit(char byte) {
  return byte >= '0' && byte <= '9';
}
constexpr char lowered(char byte) {
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}
constexpr bool isAlphanumeric(char byte) {
  return isDigit(byte) || (lowered(byte) >= 'a' && lowered(byte) <= 'z');
}
constexpr bool isHexDigit(char byte) {
  return isDigit(byte) || (lowered(byte) >= 'a' && lowered(byte) <= 'f');
}

/// RFC 9110 5.6.2.
constexpr bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char byte) {
    return isAlphanumeric(byte) || std::string_view("!#$%&'*+-.^_`|~").find(byte) != std::string_view::npos;
  });
}

/// RFC 9110 5.5 without the bytes above ASCII: visible characters, spaces and tabs.
constexpr bool isFieldValue(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char byte) { return (byte >= ' ' && byte <= '~') || byte == '\t'; });
}

/// Names of headers are compared without regard to case.
constexpr bool sameName(std::string_view left, std::string_view right) {
  return left.size() == right.size() &&
         std::equal(left.begin(), left.end(), right.begin(), [](char a, char b) { return lowered(a) == lowered(b); });
}

/// Without spaces and tabs at both ends.
constexpr std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

}  // namespace sorvane::proxy
