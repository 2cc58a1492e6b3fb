#include "vault/env_reader.h"

#include <unordered_map>

#include "base/unicode.h"
#include "vault/records.h"

namespace sorvane::vault {
namespace {

constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

std::string_view withoutBlanks(std::string_view text) {
  const std::size_t from = text.find_first_not_of(kBlanks);
  if (from == std::string_view::npos) return {};
  return text.substr(from, text.find_last_not_of(kBlanks) - from + 1);
}

/// The line at `at` without its end.
std::string_view lineAt(std::string_view text, std::size_t at) {
  std::string_view line = text.substr(at, text.find('\n', at) - at);
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

/// Where the quote that opens at `open` closes; npos when it does not. A backslash keeps the quote behind it.
std::size_t closingQuote(std::string_view text, std::size_t open) {
  const char quote = text[open];
  for (std::size_t at = open + 1; at < text.size(); ++at) {
    if (text[at] == '\\' && quote == '"')
      ++at;
    else if (text[at] == quote)
      return at;
  }
  return std::string_view::npos;
}

/// A plain value ends at a "#" with a blank before it.
std::string_view plainValue(std::string_view text) {
  for (std::size_t at = text.find('#'); at != std::string_view::npos; at = text.find('#', at + 1)) {
    if (at > 0 && kBlanks.find(text[at - 1]) != std::string_view::npos) return withoutBlanks(text.substr(0, at));
  }
  return withoutBlanks(text);
}

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  EnvText read() {
    while (at_ < text_.size()) {
      ++line_;
      const std::string_view line = lineAt(text_, at_);
      const std::string_view shown = withoutBlanks(line);
      if (shown.empty() || shown.front() == '#' || assignment(line)) {
        nextLine();
        continue;
      }
      ++result_.skippedLines;
      nextLine();
    }
    return std::move(result_);
  }

 private:
  void nextLine() {
    const std::size_t end = text_.find('\n', at_);
    at_ = end == std::string_view::npos ? text_.size() : end + 1;
  }

  /// Takes the assignment that begins on this line; `at_` then stands on its last line.
  bool assignment(std::string_view line) {
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos) return false;
    std::string_view name = withoutBlanks(line.substr(0, equals));
    if (name.starts_with("export") && name.size() > 6 && kBlanks.find(name[6]) != std::string_view::npos) {
      name = withoutBlanks(name.substr(6));
    }
    if (!isVariableName(name)) return false;
    const std::size_t first = line.find_first_not_of(kBlanks, equals + 1);
    if (first == std::string_view::npos || std::string_view("\"'`").find(line[first]) == std::string_view::npos) {
      keep(name, plainValue(line.substr(equals + 1)));
      return true;
    }
    return quoted(name, at_ + first);
  }

  bool quoted(std::string_view name, std::size_t open) {
    const std::size_t close = closingQuote(text_, open);
    if (close == std::string_view::npos) return false;
    const std::string_view behind = lineAt(text_, close + 1);
    const std::string_view rest = withoutBlanks(behind);
    // Only a comment may follow, with a blank before it.
    if (!rest.empty() && (rest.front() != '#' || behind.front() == '#')) return false;
    const std::string_view value = text_.substr(open + 1, close - open - 1);
    keep(name, value);
    for (const char c : value) line_ += c == '\n' ? 1 : 0;
    at_ = close;
    return true;
  }

  void keep(std::string_view name, std::string_view value) {
    const auto [place, isNew] = places_.try_emplace(std::string(name), Place{result_.entries.size(), false});
    if (isNew) {
      result_.entries.push_back({std::string(name), base::SecretText(value), line_});
      return;
    }
    EnvEntry& entry = result_.entries[place->second.index];
    entry.value = base::SecretText(value);
    entry.line = line_;
    if (!place->second.told) result_.duplicates.push_back(entry.name);
    place->second.told = true;
  }

  struct Place {
    std::size_t index;
    bool told;
  };
  const std::string_view text_;
  std::size_t at_ = 0;
  std::size_t line_ = 0;
  EnvText result_;
  std::unordered_map<std::string, Place> places_;
};

}  // namespace

std::optional<EnvText> readEnv(std::string_view bytes) {
  if (bytes.starts_with(kByteOrderMark)) bytes.remove_prefix(kByteOrderMark.size());
  if (bytes.find('\0') != std::string_view::npos || !base::isUtf8(bytes)) return std::nullopt;
  return Reader(bytes).read();
}

}  // namespace sorvane::vault
