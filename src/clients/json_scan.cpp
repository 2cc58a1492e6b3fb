#include "clients/json_scan.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace sorvane::clients::json {
namespace {

/// The level of a value that lies beside the path.
constexpr std::size_t kBeside = static_cast<std::size_t>(-1);

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

/// RFC 8259, sections 3 and 6: the three literal names and numbers.
bool isScalar(std::string_view word) {
  if (word == "true" || word == "false" || word == "null") return true;
  std::size_t at = word.starts_with('-') ? 1 : 0;
  const auto digits = [&] {
    const std::size_t start = at;
    while (at < word.size() && isDigit(word[at])) ++at;
    return at > start;
  };
  const bool zero = at < word.size() && word[at] == '0';
  const std::size_t whole = at;
  if (!digits() || (zero && at > whole + 1)) return false;
  if (at < word.size() && word[at] == '.') {
    ++at;
    if (!digits()) return false;
  }
  if (at < word.size() && (word[at] == 'e' || word[at] == 'E')) {
    ++at;
    if (at < word.size() && (word[at] == '+' || word[at] == '-')) ++at;
    if (!digits()) return false;
  }
  return at == word.size();
}

/// Walks one document and notes the objects on the path.
class JsonScanner {
 public:
  JsonScanner(std::string_view text, const EntryPath& path) : text_(text), path_(path) {}

  JsonScan scan() {
    at_ = markOf(text_).size();
    if (isBlank(text_)) return {};
    trivia();
    value(1, 0);
    trivia();
    if (at_ < text_.size()) refuseDamaged(text_, at_, "there is text behind the end of the document");
    return std::move(scan_);
  }

 private:
  char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
  void trivia() { at_ = skipTrivia(text_, at_); }

  /// Skips, and notes in `object` where the last comment ended.
  void triviaOf(JsonObject& object) {
    while (at_ < text_.size()) {
      const std::size_t end = commentEnd(text_, at_);
      if (end > at_) {
        object.lastComment = at_ = end;
      } else if (isSpace(text_[at_])) {
        ++at_;
      } else {
        break;
      }
    }
  }

  void value(int depth, std::size_t level) {
    const bool nests = peek() == '{' || peek() == '[';
    if (nests && depth > kMaxConfigDepth) refuseDamaged(text_, at_, "the nesting is deeper than 64 levels");
    if (level < path_.size() && peek() != '{') {
      refuseDamaged(text_, at_, "something other than an object stands where the entries belong");
    }
    switch (peek()) {
      case '{':
        object(depth, level);
        break;
      case '[':
        array(depth);
        break;
      case '"':
        string();
        break;
      default:
        scalar();
    }
  }

  void object(int depth, std::size_t level) {
    JsonObject found;
    found.range.begin = at_;
    // The place of this object on the list is taken before those of the objects in it.
    if (level < path_.size()) scan_.objects.resize(level + 1);
    std::size_t before = at_++;
    for (triviaOf(found); peek() != '}'; triviaOf(found)) {
      JsonMember member = readMember(found, depth, level);
      member.before = before;
      if (peek() != ',' && peek() != '}') refuseDamaged(text_, at_, "a comma or a closing brace is missing");
      member.after = before = at_;
      if (peek() == ',') ++at_;
      if (level < path_.size()) found.members.push_back(member);
    }
    found.range.end = ++at_;
    if (level < path_.size()) scan_.objects[level] = std::move(found);
  }

  JsonMember readMember(JsonObject& found, int depth, std::size_t level) {
    if (peek() != '"') refuseDamaged(text_, at_, "a key in double quotes or a closing brace is missing");
    JsonMember member;
    member.key = string();
    const bool onPath = level < path_.size() && isKey(member.key, path_[level]);
    if (onPath) {
      if (found.onPath) refuseDamaged(text_, member.key.begin, "a key on the way to the entry stands a second time");
      found.onPath = found.members.size();
    }
    triviaOf(found);
    if (peek() != ':') refuseDamaged(text_, at_, "the colon behind a key is missing");
    ++at_;
    triviaOf(found);
    member.value.begin = at_;
    value(depth + 1, onPath ? level + 1 : kBeside);
    member.value.end = at_;
    if (onPath && level + 1 == path_.size()) scan_.entry = member.value;
    triviaOf(found);
    return member;
  }

  /// Keys are compared as a reader would see them: with their escapes undone.
  bool isKey(Range key, const std::string& name) const {
    const base::Json parsed = base::Json::parse(key.of(text_), nullptr, /*allow_exceptions=*/false);
    return parsed.is_string() && parsed.get_ref<const std::string&>() == name;
  }

  void array(int depth) {
    ++at_;
    for (trivia(); peek() != ']'; trivia()) {
      value(depth + 1, kBeside);
      trivia();
      if (peek() == ',') {
        ++at_;
      } else if (peek() != ']') {
        refuseDamaged(text_, at_, "a comma or a closing bracket is missing");
      }
    }
    ++at_;
  }

  Range string() {
    const std::size_t start = at_++;
    while (peek() != '"') {
      if (static_cast<unsigned char>(peek()) < 0x20) refuseDamaged(text_, start, "a string is not closed");
      if (text_[at_++] == '\\') escape();
    }
    return {start, ++at_};
  }

  void escape() {
    constexpr std::string_view kHex = "0123456789abcdefABCDEF";
    const char kind = peek();
    if (std::string_view("\"\\/bfnrtu").find(kind) == std::string_view::npos) {
      refuseDamaged(text_, at_, "a string holds an unknown escape");
    }
    ++at_;
    for (int i = 0; kind == 'u' && i < 4; ++i, ++at_) {
      if (kHex.find(peek()) == std::string_view::npos) refuseDamaged(text_, at_, "a string holds a broken escape");
    }
  }

  void scalar() {
    const std::size_t start = at_;
    while (at_ < text_.size() && !isSpace(peek()) && std::string_view(",:{}[]\"/").find(peek()) == std::string::npos) {
      ++at_;
    }
    if (!isScalar(text_.substr(start, at_ - start))) {
      refuseDamaged(text_, start, "something stands where a value belongs");
    }
  }

  std::string_view text_;
  const EntryPath& path_;
  std::size_t at_ = 0;
  JsonScan scan_;
};

}  // namespace

std::size_t commentEnd(std::string_view document, std::size_t at) {
  const std::string_view rest = document.substr(at);
  if (rest.starts_with("/*")) {
    const std::size_t end = document.find("*/", at + 2);
    if (end == std::string_view::npos) refuseDamaged(document, at, "a comment is not closed");
    return end + 2;
  }
  if (!rest.starts_with("//")) return at;
  const std::size_t end = std::min(document.find('\n', at), document.size());
  const std::size_t carriage = rest.substr(0, end - at).find('\r');
  if (carriage == std::string_view::npos) return end;
  // Readers do not agree on whether a carriage return alone ends the comment, so they would read different documents.
  if (at + carriage + 1 != end) refuseDamaged(document, at, "a comment holds a carriage return");
  return end < document.size() ? end - 1 : end;
}

std::size_t skipTrivia(std::string_view document, std::size_t at) {
  while (at < document.size()) {
    const std::size_t end = commentEnd(document, at);
    if (end == at && !isSpace(document[at])) break;
    at = std::max(end, at + 1);
  }
  return at;
}

JsonScan scanJson(std::string_view document, const EntryPath& path) {
  return JsonScanner(document, path).scan();
}

std::string plainJson(std::string_view value) {
  std::string plain;
  for (std::size_t at = 0; (at = skipTrivia(value, at)) < value.size();) {
    const std::size_t start = at++;
    if (value[start] == '"') {
      while (value[at] != '"') at += value[at] == '\\' ? 2U : 1U;
      ++at;
    } else if (value[start] == ',') {
      const std::size_t next = skipTrivia(value, at);
      if (value[next] == '}' || value[next] == ']') continue;
    }
    plain.append(value.substr(start, at - start));
  }
  return plain;
}

}  // namespace sorvane::clients::json
