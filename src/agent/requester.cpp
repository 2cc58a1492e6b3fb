#include "agent/requester.h"

#include "base/unicode.h"

namespace sorvane::agent {

std::string shownShort(std::string_view text, std::size_t most) {
  std::size_t end = 0;
  for (std::size_t characters = 0; end < text.size() && characters < most; ++characters) {
    end += base::decodeUtf8(text.substr(end)).size;
  }
  std::string shown = base::escapedForDisplay(text.substr(0, end));
  if (end < text.size()) shown += "…";
  return shown;
}

namespace {

/// Foreign text between quotes that it cannot close.
std::string quoted(std::string_view text, char quote) {
  std::string shown(1, quote);
  for (const char c : shownShort(text)) {
    if (c == quote) shown += '\\';
    shown += c;
  }
  return shown + quote;
}

}  // namespace

std::string describeRequester(const Caller& caller, const std::optional<std::string>& requestor,
                              const std::optional<std::string>& processName) {
  std::string text = shownShort(caller.label);
  if (caller.inApplication) return text + " (started from the sorvane app)";
  text += " (";
  if (caller.kind == Caller::Kind::controller) text += "sorvane command line; ";
  if (requestor) text += "in its own words: " + quoted(*requestor, '"') + "; ";
  text += processName ? "process " + quoted(*processName, '\'') : "an unidentified process";
  return text + ")";
}

bool sameEnvironmentName(std::string_view scope, std::string_view name) {
  if (scope == name) return true;
  return base::nfc(base::trimmed(scope)) == base::nfc(base::trimmed(name));
}

}  // namespace sorvane::agent
