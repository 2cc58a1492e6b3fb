#include "vault/config_scan.h"

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
  if (value.starts_with('$') || value.find("${") != std::string_view::npos || isPlaceholder(value)) return false;
  if (looksLikeCredential(value)) return true;
  // A name alone says little in a configuration file, where "tokens" and "authors" abound: the value must be long too.
  constexpr std::size_t kLongFrom = 16;
  const bool marked = isCredential(key, "value");
  return marked && value.size() >= kLongFrom && value.find_first_of(" \t") == std::string_view::npos &&
         isCredential(key, value);
}

void scanLine(std::string_view line, std::size_t number, std::vector<ScanFinding>& findings) {
  std::string_view key;
  for (std::size_t at = 0; at < line.size();) {
    const char c = line[at];
    if (c == '"' || c == '\'') {
      const std::size_t end = quoteEnd(line, at);
      if (end == std::string_view::npos) return;
      const std::string_view text = line.substr(at + 1, end - at - 1);
      const std::size_t next = line.find_first_not_of(" \t", end + 1);
      const bool isKey = next != std::string_view::npos && (line[next] == ':' || line[next] == '=');
      if (isKey)
        key = text;
      else if (isFinding(key, text))
        findings.push_back({number, std::string(key), maskedEdges(text), std::string(kindOf(text))});
      at = end + 1;
    } else if (isKeyCharacter(c)) {
      const std::size_t from = at;
      while (at < line.size() && isKeyCharacter(line[at])) ++at;
      const std::size_t next = line.find_first_not_of(" \t", at);
      if (next != std::string_view::npos && (line[next] == ':' || line[next] == '='))
        key = line.substr(from, at - from);
    } else {
      ++at;
    }
  }
}

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
    scanLine(text.substr(0, end), ++number, findings);
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return findings;
}

}  // namespace sorvane::vault
