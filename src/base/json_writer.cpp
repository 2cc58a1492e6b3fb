#include "base/json_writer.h"

#include <charconv>
#include <cstring>

#include "base/codec.h"

namespace sorvane::base {
namespace {

constexpr std::string_view kSpaces = "                                                                ";

bool needsEscape(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\';
}

/// Whether one of eight bytes needs an escape: the classic test of a word for a zero byte, three times over.
bool oneNeedsEscape(std::uint64_t word) {
  constexpr std::uint64_t kOnes = 0x0101010101010101ULL, kHighs = 0x8080808080808080ULL;
  const std::uint64_t quote = word ^ (kOnes * '"'), backslash = word ^ (kOnes * '\\');
  const std::uint64_t zeros = ((quote - kOnes) & ~quote) | ((backslash - kOnes) & ~backslash);
  return ((zeros | ((word - kOnes * 0x20) & ~word)) & kHighs) != 0;
}

}  // namespace

std::size_t nextJsonSpecial(std::string_view text, std::size_t at) {
  for (; at + 8 <= text.size(); at += 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + at, 8);
    if (oneNeedsEscape(word)) break;
  }
  while (at < text.size() && !needsEscape(text[at])) ++at;
  return at;
}

void appendJsonString(SecretText& out, std::string_view text) {
  static constexpr std::string_view kHex = "0123456789abcdef";
  out.push_back('"');
  std::size_t start = 0;
  for (std::size_t i = nextJsonSpecial(text, 0); i < text.size(); i = nextJsonSpecial(text, i + 1)) {
    out.append(text.substr(start, i - start));
    start = i + 1;
    switch (text[i]) {
      case '"':
        out.append("\\\"");
        break;
      case '\\':
        out.append("\\\\");
        break;
      case '\n':
        out.append("\\n");
        break;
      case '\r':
        out.append("\\r");
        break;
      case '\t':
        out.append("\\t");
        break;
      case '\b':
        out.append("\\b");
        break;
      case '\f':
        out.append("\\f");
        break;
      default:
        out.append("\\u00");
        out.push_back(kHex[static_cast<unsigned char>(text[i]) >> 4]);
        out.push_back(kHex[static_cast<unsigned char>(text[i]) & 15]);
    }
  }
  out.append(text.substr(start));
  out.push_back('"');
}

void JsonWriter::newLine() {
  text_.push_back('\n');
  for (std::size_t left = depth_ * 2; left > 0;) {
    const std::size_t now = left < kSpaces.size() ? left : kSpaces.size();
    text_.append(kSpaces.substr(0, now));
    left -= now;
  }
}

void JsonWriter::separate() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (!first_) text_.push_back(',');
  if (style_ == Style::pretty && depth_ > 0) newLine();
  first_ = false;
}

void JsonWriter::open(char bracket) {
  separate();
  text_.push_back(bracket);
  ++depth_;
  first_ = true;
}

void JsonWriter::close(char bracket) {
  --depth_;
  if (style_ == Style::pretty && !first_) newLine();
  text_.push_back(bracket);
  first_ = false;
}

JsonWriter& JsonWriter::beginObject() {
  open('{');
  return *this;
}
JsonWriter& JsonWriter::endObject() {
  close('}');
  return *this;
}
JsonWriter& JsonWriter::beginArray() {
  open('[');
  return *this;
}
JsonWriter& JsonWriter::endArray() {
  close(']');
  return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
  separate();
  appendJsonString(text_, name);
  text_.append(style_ == Style::pretty ? ": " : ":");
  afterKey_ = true;
  return *this;
}

JsonWriter& JsonWriter::string(std::string_view text) {
  separate();
  appendJsonString(text_, text);
  return *this;
}

JsonWriter& JsonWriter::integer(std::int64_t number) {
  separate();
  char digits[24];
  const auto end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
  text_.append({digits, static_cast<std::size_t>(end - digits)});
  return *this;
}

JsonWriter& JsonWriter::boolean(bool value) {
  return raw(value ? "true" : "false");
}

JsonWriter& JsonWriter::base64(std::span<const std::uint8_t> bytes) {
  separate();
  text_.push_back('"');
  const std::size_t start = text_.size();
  text_.resize(start + base64Size(bytes.size()));
  base64Into(bytes, text_.data() + start);
  text_.push_back('"');
  return *this;
}

JsonWriter& JsonWriter::raw(std::string_view text) {
  separate();
  text_.append(text);
  return *this;
}

JsonWriter& JsonWriter::strings(std::string_view name, const std::vector<std::string>& list) {
  key(name).beginArray();
  for (const std::string& item : list) string(item);
  return endArray();
}

}  // namespace sorvane::base
