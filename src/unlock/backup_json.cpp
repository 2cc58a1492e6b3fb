#include "unlock/backup_json.h"

#include <charconv>
#include <optional>

#include "base/codec.h"
#include "base/json.h"
#include "base/json_writer.h"

namespace sorvane::unlock {
namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

template <typename Out>
void appendUtf8(Out& out, std::uint32_t character) {
  const auto byte = [&](std::uint32_t value) { out.push_back(static_cast<char>(value)); };
  if (character < 0x80) {
    byte(character);
  } else if (character < 0x800) {
    byte(0xC0 | character >> 6);
    byte(0x80 | (character & 63));
  } else if (character < 0x10000) {
    byte(0xE0 | character >> 12);
    byte(0x80 | (character >> 6 & 63));
    byte(0x80 | (character & 63));
  } else {
    byte(0xF0 | character >> 18);
    byte(0x80 | (character >> 12 & 63));
    byte(0x80 | (character >> 6 & 63));
    byte(0x80 | (character & 63));
  }
}

/// Takes the place of a text where only its grammar is of interest.
struct Nowhere {
  void push_back(char) {}
};

/// The four hexadecimal digits at the start of `text`.
std::uint32_t unitIn(std::string_view text) {
  const auto bytes = text.size() < 4 ? std::nullopt : base::parseHex(text.substr(0, 4));
  if (!bytes) throw JsonCursor::Malformed{};
  return static_cast<std::uint32_t>((*bytes)[0]) << 8 | (*bytes)[1];
}

/// Undoes the escape behind a backslash and returns how many characters it took.
template <typename Out>
std::size_t undo(Out& out, std::string_view escape) {
  if (escape.empty()) throw JsonCursor::Malformed{};
  static constexpr std::string_view kLetters = "\"\\/bfnrt", kMeanings = "\"\\/\b\f\n\r\t";
  if (const std::size_t found = kLetters.find(escape[0]); found != std::string_view::npos) {
    out.push_back(kMeanings[found]);
    return 1;
  }
  if (escape[0] != 'u') throw JsonCursor::Malformed{};
  const std::uint32_t unit = unitIn(escape.substr(1));
  if (unit < 0xD800 || unit > 0xDFFF) {
    appendUtf8(out, unit);
    return 5;
  }
  if (unit > 0xDBFF || escape.size() < 11 || escape[5] != '\\' || escape[6] != 'u') throw JsonCursor::Malformed{};
  const std::uint32_t low = unitIn(escape.substr(7));
  if (low < 0xDC00 || low > 0xDFFF) throw JsonCursor::Malformed{};
  appendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
  return 11;
}

}  // namespace

char JsonCursor::peek() {
  while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\n' || text_[at_] == '\r' || text_[at_] == '\t')) {
    ++at_;
  }
  if (at_ == text_.size()) throw Malformed{};
  return text_[at_];
}

void JsonCursor::expect(char character) {
  if (peek() != character) throw Malformed{};
  ++at_;
}

void JsonCursor::enter(char bracket) {
  expect(bracket);
  if (++depth_ > base::kMaxJsonDepth) throw Malformed{};
}

bool JsonCursor::leave(char bracket) {
  if (peek() != bracket) return false;
  ++at_;
  return true;
}

bool JsonCursor::more(char bracket) {
  if (leave(bracket)) return false;
  expect(',');
  return true;
}

JsonCursor::Kind JsonCursor::kind() {
  switch (peek()) {
    case '{':
      return Kind::object;
    case '[':
      return Kind::array;
    case '"':
      return Kind::string;
    case 't':
    case 'f':
      return Kind::boolean;
    case 'n':
      return Kind::null;
    default:
      return Kind::number;
  }
}

std::string_view JsonCursor::rawString(bool& escaped) {
  expect('"');
  const std::size_t start = at_;
  Nowhere nowhere;
  escaped = false;
  while ((at_ = base::nextJsonSpecial(text_, at_)) < text_.size()) {
    if (text_[at_] == '"') return text_.substr(start, at_++ - start);
    if (text_[at_] != '\\') throw Malformed{};
    escaped = true;
    at_ += 1 + undo(nowhere, text_.substr(at_ + 1));
  }
  throw Malformed{};
}

base::SecretText JsonCursor::string() {
  base::SecretText scratch;
  const std::string_view text = stringView(scratch);
  return scratch.empty() ? base::SecretText(text) : std::move(scratch);
}

std::string_view JsonCursor::stringView(base::SecretText& scratch) {
  bool escaped = false;
  std::string_view raw = rawString(escaped);
  if (!escaped) return raw;
  scratch.truncate(0);
  scratch.reserve(raw.size());
  while (!raw.empty()) {
    const std::size_t run = base::nextJsonSpecial(raw, 0);
    scratch.append(raw.substr(0, run));
    raw.remove_prefix(run);
    if (!raw.empty()) raw.remove_prefix(1 + undo(scratch, raw.substr(1)));
  }
  return scratch.view();
}

void JsonCursor::skipNumber() {
  const auto digits = [&] {
    if (at_ == text_.size() || !isDigit(text_[at_])) throw Malformed{};
    while (at_ < text_.size() && isDigit(text_[at_])) ++at_;
  };
  if (text_[at_] == '-') ++at_;
  const bool zero = at_ < text_.size() && text_[at_] == '0';
  if (zero) {
    ++at_;
  } else {
    digits();
  }
  if (at_ < text_.size() && text_[at_] == '.') {
    ++at_;
    digits();
  }
  if (at_ < text_.size() && (text_[at_] == 'e' || text_[at_] == 'E')) {
    ++at_;
    if (at_ < text_.size() && (text_[at_] == '+' || text_[at_] == '-')) ++at_;
    digits();
  }
}

void JsonCursor::skipWord(std::string_view word) {
  if (!text_.substr(at_).starts_with(word)) throw Malformed{};
  at_ += word.size();
}

std::string_view JsonCursor::skip() {
  const Kind next = kind();
  const std::size_t start = at_;
  switch (next) {
    case Kind::object:
      object([&](std::string_view) { skip(); });
      break;
    case Kind::array:
      array([&] { skip(); });
      break;
    case Kind::string: {
      bool escaped = false;
      rawString(escaped);
      break;
    }
    case Kind::number:
      skipNumber();
      break;
    case Kind::boolean:
      skipWord(text_[at_] == 't' ? "true" : "false");
      break;
    case Kind::null:
      skipWord("null");
      break;
  }
  return text_.substr(start, at_ - start);
}

std::int64_t JsonCursor::integer() {
  if (kind() != Kind::number) throw Malformed{};
  const std::string_view number = skip();
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
  if (error != std::errc{} || end != number.data() + number.size()) throw Malformed{};
  return value;
}

void JsonCursor::end() {
  while (at_ < text_.size()) {
    const char c = text_[at_++];
    if (c != ' ' && c != '\n' && c != '\r' && c != '\t') throw Malformed{};
  }
}

}  // namespace sorvane::unlock
