#include "vault/config_scan.h"

#include <algorithm>
#include <cctype>
#include <optional>

#include "vault/credential_test.h"
#include "vault/env_reader.h"

namespace sorvane::vault {
namespace {

bool isKeyCharacter(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.';
}

/// The end of the quoted text that begins at `open`; npos when the line ends first.
std::size_t quoteEnd(std::string_view line, std::size_t open) {
  for (std::size_t at = open + 1; at < line.size(); ++at) {
    if (line[at] == '\\')
      ++at;
    else if (line[at] == line[open])
      return at;
  }
  return std::string_view::npos;
}

bool isFinding(std::string_view key, std::string_view value) {
  if (value.empty() || value.starts_with('$') || value.find("${") != std::string_view::npos || isPlaceholder(value))
    return false;
  if (looksLikeCredential(value)) return true;
  // A name alone says little in a configuration file, where "tokens" and "authors" abound: the value must be long too.
  constexpr std::size_t kLongFrom = 16;
  const bool marked = isCredential(key, "value");
  return marked && value.size() >= kLongFrom && value.find_first_of(" \t") == std::string_view::npos &&
         isCredential(key, value);
}

/// LineScan looks through one line for quoted values and the keys before them.
class LineScan {
 public:
  LineScan(std::string_view line, std::size_t number, std::vector<ScanFinding>& findings)
      : line_(line), number_(number), findings_(findings) {}

  void run() {
    while (at_ < line_.size()) {
      const char c = line_[at_];
      if ((c == '"' || c == '\'') && unclosed_.find(c) == std::string::npos) {
        quoted();
      } else if (isKeyCharacter(c)) {
        bare();
      } else {
        ++at_;
      }
    }
  }

 private:
  void quoted() {
    const std::size_t end = quoteEnd(line_, at_);
    if (end == std::string_view::npos) {  // an apostrophe in a comment, or a text of several lines
      unclosed_ += line_[at_++];
      return;
    }
    const std::string_view text = line_.substr(at_ + 1, end - at_ - 1);
    at_ = end + 1;
    if (isKeyUpTo(at_)) {
      key_ = text;
    } else if (!text.starts_with("--") && isFinding(key_, text)) {
      add(text);
    } else {
      pieces(text);
    }
  }

  /// A credential inside a longer text: "Bearer …", "--api-key=…".
  void pieces(std::string_view text) {
    constexpr std::string_view kSeparators = " \t=,;:";
    while (!text.empty()) {
      const std::size_t end = std::min(text.find_first_of(kSeparators), text.size());
      if (looksLikeCredential(text.substr(0, end))) add(text.substr(0, end));
      text.remove_prefix(std::min(end + 1, text.size()));
    }
  }

  void bare() {
    const std::size_t from = at_;
    while (at_ < line_.size() && isKeyCharacter(line_[at_])) ++at_;
    if (isKeyUpTo(at_)) key_ = line_.substr(from, at_ - from);
  }

  bool isKeyUpTo(std::size_t end) const {
    const std::size_t next = line_.find_first_not_of(" \t", end);
    return next != std::string_view::npos && (line_[next] == ':' || line_[next] == '=');
  }

  void add(std::string_view value) {
    findings_.push_back({number_, std::string(key_), maskedEdges(value), std::string(kindOf(value))});
  }

  const std::string_view line_;
  const std::size_t number_;
  std::vector<ScanFinding>& findings_;
  std::size_t at_ = 0;
  std::string_view key_;
  std::string unclosed_;  ///< quote characters that nothing closes on this line
};

}  // namespace

std::vector<ScanFinding> scanEnvText(std::string_view text) {
  std::vector<ScanFinding> findings;
  const auto read = readEnv(text);
  if (!read) return findings;
  for (const EnvEntry& entry : read->entries) {
    const std::string_view value = entry.value.view();
    if (value.starts_with('$') || isPlaceholder(value) || !isCredential(entry.name, value)) continue;
    findings.push_back({entry.line, entry.name, maskedEdges(value), std::string(kindOf(value))});
  }
  return findings;
}

std::vector<ScanFinding> scanConfigText(std::string_view text) {
  std::vector<ScanFinding> findings;
  std::size_t number = 0;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    LineScan(text.substr(0, end), ++number, findings).run();
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return findings;
}

}  // namespace sorvane::vault
