#include "proxy/body_reader.h"

#include <simdjson.h>

#include <algorithm>
#include <limits>

#include "base/unicode.h"
#include "proxy/body_text.h"

namespace sorvane::proxy {
namespace {

/// Up to here every key is compared with every other; more are sorted first.
constexpr std::size_t kFewKeys = 12;

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

int hexDigit(char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

char32_t unitAt(std::string_view raw, std::size_t at) {
  char32_t unit = 0;
  for (std::size_t digit = 0; digit < 4; ++digit) {
    unit = unit * 16 + static_cast<char32_t>(hexDigit(raw[at + digit]));
  }
  return unit;
}

char plainOf(char escape) {
  switch (escape) {
    case 'b':
      return '\b';
    case 'f':
      return '\f';
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    default:
      return escape;
  }
}

/// `raw` is the inside of a string whose escapes are well-formed. nullopt for half a surrogate pair.
std::optional<std::string> unescaped(std::string_view raw) {
  std::string out;
  out.reserve(raw.size());
  for (std::size_t at = 0; at < raw.size();) {
    if (raw[at] != '\\') {
      out += raw[at++];
    } else if (raw[at + 1] != 'u') {
      out += plainOf(raw[at + 1]);
      at += 2;
    } else {
      char32_t character = unitAt(raw, at + 2);
      at += 6;
      if (character >= 0xDC00 && character < 0xE000) return std::nullopt;
      if (character >= 0xD800 && character < 0xDC00) {
        if (raw.size() - at < 6 || raw[at] != '\\' || raw[at + 1] != 'u') return std::nullopt;
        const char32_t low = unitAt(raw, at + 2);
        if (low < 0xDC00 || low >= 0xE000) return std::nullopt;
        character = 0x10000 + ((character - 0xD800) << 10) + (low - 0xDC00);
        at += 6;
      }
      base::appendUtf8(out, character);
    }
  }
  return out;
}

}  // namespace

BodyReader::BodyReader(std::string_view text) : at_(text.data()), end_(at_ + text.size()), begin_(at_) {
  if (!simdjson::validate_utf8(text.data(), text.size())) fail(BodyProblem::notUtf8);
  keys_.reserve(64);
}

void BodyReader::fail(BodyProblem problem) {
  if (problem_ == BodyProblem::none) problem_ = problem;
  at_ = end_;
}

void BodyReader::skipSpace() {
  while (at_ != end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\t' || *at_ == '\r')) ++at_;
}

BodyReader::Kind BodyReader::kind() {
  skipSpace();
  if (at_ == end_) return Kind::nothing;
  switch (*at_) {
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
      return *at_ == '-' || isDigit(*at_) ? Kind::number : Kind::nothing;
  }
}

std::size_t BodyReader::position() {
  skipSpace();
  return static_cast<std::size_t>(at_ - begin_);
}

bool BodyReader::open(char bracket) {
  ++at_;
  if (++depth_ > kMostBodyDepth) {
    fail(BodyProblem::tooDeep);
    return false;
  }
  skipSpace();
  if (at_ != end_ && *at_ == bracket) {
    ++at_;
    return false;
  }
  return true;
}

bool BodyReader::next(char bracket) {
  skipSpace();
  if (at_ != end_ && (*at_ == ',' || *at_ == bracket)) return *at_++ == ',';
  fail(BodyProblem::malformed);
  return false;
}

std::optional<std::string_view> BodyReader::takeKey(std::size_t firstKey) {
  auto key = kind() == Kind::string ? rawString() : std::nullopt;
  if (!key || keys_.size() - firstKey >= kMostBodyMembers || unescaped_.size() >= kMostBodyMembers) {
    fail(BodyProblem::malformed);
    return std::nullopt;
  }
  if (escaped_) {
    auto plain = unescaped(*key);
    if (!plain) {
      fail(BodyProblem::malformed);
      return std::nullopt;
    }
    key = unescaped_.emplace_back(std::move(*plain));
  }
  skipSpace();
  if (at_ == end_ || *at_ != ':') {
    fail(BodyProblem::malformed);
    return std::nullopt;
  }
  ++at_;
  metCacheControl_ = metCacheControl_ || *key == "cache_control";
  metTimeToLive_ = metTimeToLive_ || *key == "ttl";
  keys_.push_back(*key);
  return key;
}

void BodyReader::close(std::size_t firstKey) {
  --depth_;
  const auto first = keys_.begin() + static_cast<std::ptrdiff_t>(firstKey);
  bool twice = false;
  if (keys_.size() - firstKey <= kFewKeys) {
    for (auto key = first; key != keys_.end() && !twice; ++key) twice = std::find(first, key, *key) != key;
  } else {
    std::sort(first, keys_.end());
    twice = std::adjacent_find(first, keys_.end()) != keys_.end();
  }
  keys_.resize(firstKey);
  if (twice) fail(BodyProblem::duplicateKey);
}

void BodyReader::skip() {
  switch (kind()) {
    case Kind::object:
      return object([this](std::string_view) { skip(); });
    case Kind::array:
      return array([this] { skip(); });
    case Kind::string:
      rawString();
      return;
    case Kind::number:
      return skipNumber();
    case Kind::boolean:
      if (!literal("true") && !literal("false")) fail(BodyProblem::malformed);
      return;
    case Kind::null:
      if (!literal("null")) fail(BodyProblem::malformed);
      return;
    case Kind::nothing:
      return fail(BodyProblem::malformed);
  }
}

std::optional<std::string_view> BodyReader::rawString() {
  if (kind() != Kind::string) {
    skip();
    return std::nullopt;
  }
  const char* const first = ++at_;
  escaped_ = false;
  while (true) {
    at_ = endOfPlain(at_, end_);
    if (at_ != end_ && *at_ == '"') break;
    if (at_ == end_ || *at_ != '\\' || !takeEscape()) {
      fail(BodyProblem::malformed);
      return std::nullopt;
    }
    escaped_ = true;
  }
  const std::string_view inside(first, static_cast<std::size_t>(at_ - first));
  ++at_;
  return inside;
}

bool BodyReader::takeEscape() {
  ++at_;
  if (at_ == end_) return false;
  if (*at_ != 'u') return std::string_view("\"\\/bfnrt").find(*at_++) != std::string_view::npos;
  ++at_;
  for (int digit = 0; digit < 4; ++digit, ++at_) {
    if (at_ == end_ || hexDigit(*at_) < 0) return false;
  }
  return true;
}

std::optional<std::string> BodyReader::string() {
  const auto raw = rawString();
  if (!raw) return std::nullopt;
  if (!escaped_) return std::string(*raw);
  auto text = unescaped(*raw);
  if (!text) fail(BodyProblem::malformed);
  return text;
}

bool BodyReader::digits() {
  const char* const first = at_;
  while (at_ != end_ && isDigit(*at_)) ++at_;
  return at_ != first;
}

void BodyReader::skipNumber() {
  if (*at_ == '-') ++at_;
  const bool zero = at_ != end_ && *at_ == '0';
  const char* const first = at_;
  bool valid = digits() && !(zero && at_ - first > 1);
  if (valid && at_ != end_ && *at_ == '.') {
    ++at_;
    valid = digits();
  }
  if (valid && at_ != end_ && (*at_ == 'e' || *at_ == 'E')) {
    ++at_;
    if (at_ != end_ && (*at_ == '+' || *at_ == '-')) ++at_;
    valid = digits();
  }
  if (!valid) fail(BodyProblem::malformed);
}

std::optional<std::int64_t> BodyReader::integer() {
  if (kind() != Kind::number) {
    skip();
    return std::nullopt;
  }
  const char* const first = at_;
  skipNumber();
  if (problem_ != BodyProblem::none) return std::nullopt;
  const bool negative = *first == '-';
  std::int64_t value = 0;
  for (const char* digit = first + (negative ? 1 : 0); digit != at_; ++digit) {
    if (!isDigit(*digit)) return std::nullopt;
    const std::int64_t most = std::numeric_limits<std::int64_t>::max();
    value = value > (most - 9) / 10 ? most : value * 10 + (*digit - '0');
  }
  return negative ? -value : value;
}

std::optional<bool> BodyReader::boolean() {
  if (kind() != Kind::boolean) {
    skip();
    return std::nullopt;
  }
  if (literal("true")) return true;
  if (literal("false")) return false;
  fail(BodyProblem::malformed);
  return std::nullopt;
}

bool BodyReader::literal(std::string_view word) {
  if (static_cast<std::size_t>(end_ - at_) < word.size() || std::string_view(at_, word.size()) != word) return false;
  at_ += word.size();
  return true;
}

bool BodyReader::finish() {
  skipSpace();
  if (problem_ == BodyProblem::none && at_ != end_) fail(BodyProblem::malformed);
  return problem_ == BodyProblem::none;
}

}  // namespace sorvane::proxy
