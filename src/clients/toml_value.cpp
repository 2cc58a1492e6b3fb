#include <algorithm>
#include <charconv>
#include <cstdint>
#include <nlohmann/json.hpp>

#include "base/unicode.h"
#include "clients/toml_scan.h"

namespace sorvane::clients::toml {
namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isBareKey(char c) {
  return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '-';
}
bool isForbidden(char c) {
  return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == '\x7f';
}

[[noreturn]] void refuse(const TomlCursor& cursor, std::string_view what) {
  refuseDamaged(cursor.text, cursor.at, what);
}

void readNumberedEscape(TomlCursor& cursor, std::size_t digits, std::string& out) {
  const std::string_view number = cursor.text.substr(cursor.at, digits);
  std::uint32_t character = 0;
  const auto parsed = std::from_chars(number.data(), number.data() + number.size(), character, 16);
  if (number.size() != digits || parsed.ptr != number.data() + digits || character > 0x10FFFF ||
      (character >= 0xD800 && character < 0xE000)) {
    refuse(cursor, "a string holds a broken escape");
  }
  cursor.at += digits;
  base::appendUtf8(out, character);
}

/// A backslash at the end of a line takes the white space up to the next text with it.
bool readLineJoin(TomlCursor& cursor) {
  const std::size_t start = cursor.at;
  skipBlanks(cursor);
  if (cursor.at == cursor.text.size() || !cursor.atLineEnd()) {
    cursor.at = start;
    return false;
  }
  cursor.at = std::min(cursor.text.find_first_not_of(" \t\r\n", cursor.at), cursor.text.size());
  return true;
}

void readEscape(TomlCursor& cursor, std::string& out) {
  constexpr std::string_view kKinds = "btnfre\"\\";
  constexpr std::string_view kMeant = "\b\t\n\f\r\x1b\"\\";
  const char kind = cursor.peek();
  ++cursor.at;
  if (const std::size_t known = kKinds.find(kind); known != std::string_view::npos) {
    out += kMeant[known];
  } else if (kind == 'x' || kind == 'u' || kind == 'U') {
    readNumberedEscape(cursor, kind == 'x' ? 2 : kind == 'u' ? 4 : 8, out);
  } else {
    refuse(cursor, "a string holds an unknown escape");
  }
}

std::string readLineString(TomlCursor& cursor) {
  const std::size_t start = cursor.at;
  const char quote = cursor.peek();
  std::string out;
  for (++cursor.at; cursor.peek() != quote;) {
    const char c = cursor.peek();
    if (isForbidden(c)) refuseDamaged(cursor.text, start, "a string is not closed");
    ++cursor.at;
    if (c == '\\' && quote == '"') {
      readEscape(cursor, out);
    } else {
      out += c;
    }
  }
  ++cursor.at;
  return out;
}

/// A string in three quotes. Line ends in it are read as "\n" however the file writes them.
std::string readLongString(TomlCursor& cursor) {
  const std::size_t start = cursor.at;
  const char quote = cursor.peek();
  const std::string closing(3, quote);
  cursor.at += 3;
  if (cursor.atLineEnd()) cursor.at += cursor.startsWith("\r\n") ? 2U : 1U;
  std::string out;
  while (!cursor.startsWith(closing)) {
    if (cursor.at >= cursor.text.size()) refuseDamaged(cursor.text, start, "a string is not closed");
    if (cursor.startsWith("\r\n")) ++cursor.at;
    const char c = cursor.peek();
    if (isForbidden(c) && c != '\n') refuse(cursor, "a string holds a control character");
    ++cursor.at;
    if (c != '\\' || quote == '\'') {
      out += c;
    } else if (!readLineJoin(cursor)) {
      readEscape(cursor, out);
    }
  }
  cursor.at += 3;
  // One or two more quotes belong to the text.
  for (int i = 0; i < 2 && cursor.peek() == quote; ++i, ++cursor.at) out += quote;
  return out;
}

/// An integer or a float in decimal without its underscores; empty when `word` is neither.
std::string decimalOf(std::string_view word) {
  std::string plain(word.starts_with('-') ? "-" : "");
  std::size_t at = word.starts_with('-') || word.starts_with('+') ? 1 : 0;
  const auto digits = [&] {
    const std::size_t start = at;
    for (; at < word.size(); ++at) {
      if (word[at] == '_' && at > start && isDigit(word[at - 1]) && at + 1 < word.size() && isDigit(word[at + 1])) {
        continue;
      }
      if (!isDigit(word[at])) break;
      plain += word[at];
    }
    return at > start;
  };
  const std::size_t whole = at;
  if (!digits() || (word[whole] == '0' && at > whole + 1)) return {};
  if (at < word.size() && word[at] == '.') {
    plain += word[at++];
    if (!digits()) return {};
  }
  if (at < word.size() && (word[at] == 'e' || word[at] == 'E')) {
    plain += word[at++];
    if (at < word.size() && (word[at] == '+' || word[at] == '-')) plain += word[at++];
    if (!digits()) return {};
  }
  return at == word.size() ? plain : std::string();
}

/// The digits behind "0x", "0o" or "0b" without their underscores; empty when they are none of that base.
std::string digitsOf(std::string_view word, std::string_view allowed) {
  std::string plain;
  for (std::size_t at = 2; at < word.size(); ++at) {
    const bool between = at > 2 && at + 1 < word.size() && word[at - 1] != '_' && word[at + 1] != '_';
    if (word[at] == '_' && between) continue;
    if (allowed.find(word[at]) == std::string_view::npos) return {};
    plain += word[at];
  }
  return plain;
}

std::optional<base::Json> integer(std::string_view digits, int radix) {
  std::int64_t value = 0;
  const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), value, radix);
  if (parsed.ec != std::errc() || parsed.ptr != digits.data() + digits.size()) return std::nullopt;
  return base::Json(value);
}

bool looksLikeDate(std::string_view word) {
  const bool date = word.size() >= 10 && word[4] == '-' && word[7] == '-';
  const bool time = word.size() >= 5 && word[2] == ':';
  return (date || time) && word.find_first_not_of("0123456789-+:.TtZz ") == std::string_view::npos;
}

std::optional<base::Json> readScalar(TomlCursor& cursor) {
  const std::size_t end = std::min(cursor.text.find_first_of(",]}#\r\n", cursor.at), cursor.text.size());
  std::string_view word = cursor.text.substr(cursor.at, end - cursor.at);
  word = word.substr(0, word.find_last_not_of(" \t") + 1);
  const TomlCursor start = cursor;
  cursor.at += word.size();
  if (word == "true" || word == "false") return base::Json(word == "true");
  const std::string_view unsignedWord = word.substr(word.starts_with('-') || word.starts_with('+') ? 1 : 0);
  if (unsignedWord == "inf" || unsignedWord == "nan" || looksLikeDate(word)) return std::nullopt;
  if (const std::string plain = decimalOf(word); !plain.empty()) {
    if (plain.find_first_of(".eE") == std::string::npos) return integer(plain, 10);
    base::Json value = base::Json::parse(plain, nullptr, /*allow_exceptions=*/false);
    return value.is_discarded() ? std::nullopt : std::optional(std::move(value));
  }
  struct Radix {
    std::string_view prefix;
    std::string_view digits;
    int base;
  };
  for (const Radix& radix : {Radix{"0x", "0123456789abcdefABCDEF", 16}, {"0o", "01234567", 8}, {"0b", "01", 2}}) {
    if (!word.starts_with(radix.prefix)) continue;
    if (const std::string digits = digitsOf(word, radix.digits); !digits.empty()) return integer(digits, radix.base);
  }
  refuse(start, "something stands where a value belongs");
}

std::optional<base::Json> readAt(TomlCursor& cursor, int depth);

std::optional<base::Json> readArray(TomlCursor& cursor, int depth) {
  std::optional<base::Json> out = base::Json::array();
  ++cursor.at;
  for (skipLines(cursor); cursor.peek() != ']'; skipLines(cursor)) {
    const auto element = readAt(cursor, depth + 1);
    if (!element) out.reset();
    if (out) out->push_back(*element);
    skipLines(cursor);
    if (cursor.peek() == ',') {
      ++cursor.at;
    } else if (cursor.peek() != ']') {
      refuse(cursor, "a comma or a closing bracket is missing");
    }
  }
  ++cursor.at;
  return out;
}

std::optional<base::Json> readInlineTable(TomlCursor& cursor, int depth) {
  std::optional<base::Json> out = base::Json::object();
  ++cursor.at;
  for (skipLines(cursor); cursor.peek() != '}'; skipLines(cursor)) {
    const TomlKey key = readKey(cursor);
    if (cursor.peek() != '=') refuse(cursor, "the equals sign behind a key is missing");
    ++cursor.at;
    skipBlanks(cursor);
    auto value = readAt(cursor, depth + 1);
    base::Json* member = out && value ? newMember(*out, key) : nullptr;
    if (member == nullptr) out.reset();
    if (member != nullptr) *member = std::move(*value);
    skipLines(cursor);
    if (cursor.peek() == ',') {
      ++cursor.at;
    } else if (cursor.peek() != '}') {
      refuse(cursor, "a comma or a closing brace is missing");
    }
  }
  ++cursor.at;
  return out;
}

std::optional<base::Json> readAt(TomlCursor& cursor, int depth) {
  if (depth > kMaxConfigDepth) refuse(cursor, "the nesting is deeper than 64 levels");
  switch (cursor.peek()) {
    case '"':
    case '\'':
      return cursor.startsWith("\"\"\"") || cursor.startsWith("'''") ? readLongString(cursor) : readLineString(cursor);
    case '[':
      return readArray(cursor, depth);
    case '{':
      return readInlineTable(cursor, depth);
    default:
      return readScalar(cursor);
  }
}

}  // namespace

void skipBlanks(TomlCursor& cursor) {
  while (cursor.peek() == ' ' || cursor.peek() == '\t') ++cursor.at;
}

void skipComment(TomlCursor& cursor) {
  if (cursor.peek() != '#') return;
  for (; !cursor.atLineEnd(); ++cursor.at) {
    if (isForbidden(cursor.peek())) refuse(cursor, "a comment holds a control character");
  }
}

void skipLines(TomlCursor& cursor) {
  for (skipBlanks(cursor), skipComment(cursor); cursor.at < cursor.text.size() && cursor.atLineEnd();
       skipBlanks(cursor), skipComment(cursor)) {
    cursor.at += cursor.peek() == '\r' ? 2U : 1U;
  }
}

TomlKey readKey(TomlCursor& cursor) {
  TomlKey key;
  for (;; ++cursor.at) {
    skipBlanks(cursor);
    if (cursor.peek() == '"' || cursor.peek() == '\'') {
      key.push_back(readLineString(cursor));
    } else {
      const std::size_t start = cursor.at;
      while (isBareKey(cursor.peek())) ++cursor.at;
      if (cursor.at == start) refuse(cursor, "something stands where a key belongs");
      key.emplace_back(cursor.text.substr(start, cursor.at - start));
    }
    if (key.size() > kMaxConfigDepth) refuse(cursor, "the nesting is deeper than 64 levels");
    skipBlanks(cursor);
    if (cursor.peek() != '.') return key;
  }
}

std::optional<base::Json> readValue(TomlCursor& cursor) {
  return readAt(cursor, 1);
}

base::Json* newMember(base::Json& root, const TomlKey& keys) {
  base::Json* at = &root;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (!at->is_object()) return nullptr;
    const auto [member, made] = at->emplace(keys[i], base::Json::object());
    if (!made && i + 1 == keys.size()) return nullptr;
    at = &*member;
  }
  return at;
}

}  // namespace sorvane::clients::toml
