#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace sorvane::agent {

/// What the controller is called in prompts and in the access log.
inline constexpr std::string_view kControllerLabel = "Terminal";
/// Most characters of a label or of a caller's own words that a prompt shows.
inline constexpr std::size_t kMaxShownCharacters = 200;

/// Who makes a request, known from its token.
struct Caller {
  enum class Kind { controller, grant };
  Kind kind = Kind::controller;
  std::string label{kControllerLabel};
  /// The grant's token hash, or the SHA-256 of the controller token of this generation.
  std::string identity;
  /// The one environment that the caller sees, or none.
  std::optional<std::string> scope;
  bool allowReveal = true;
  /// The request came from the application's own window, not over the socket.
  bool inApplication = false;
};

/// The first `most` characters of `text`, escaped for one line, with "…" behind them when something was cut.
std::string shownShort(std::string_view text, std::size_t most = kMaxShownCharacters);

/// Describes the requester for a reason: the label, what the caller says of itself, quoted and marked as its own words,
/// and the name of the asking process. `processName` is absent when the system did not say.
std::string describeRequester(const Caller& caller, const std::optional<std::string>& requestor,
                              const std::optional<std::string>& processName);

/// Whether a caller scoped to `scope` may use the environment `name`: equal in NFC and trimmed, case-sensitively.
bool sameEnvironmentName(std::string_view scope, std::string_view name);

}  // namespace sorvane::agent
