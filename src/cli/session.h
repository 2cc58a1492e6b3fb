#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "agent/client.h"
#include "agent/protocol.h"
#include "base/error.h"
#include "base/json.h"
#include "base/support_folder.h"

namespace sorvane::cli {

// Exit codes of sorvane itself; `run` passes on the command's own. The numbers from 64 are those of sysexits.h.
inline constexpr int kFailed = 1;
inline constexpr int kUsage = 2;
inline constexpr int kNotRunning = 69;
inline constexpr int kTryLater = 75;
inline constexpr int kDenied = 77;
inline constexpr int kConfiguration = 78;

/// Failure ends a command: the sentence goes to the person, the word to programs, the number to the shell.
class Failure : public base::Error {
 public:
  Failure(int exitCode, std::string code, const std::string& sentence)
      : Error(sentence), exitCode_(exitCode), code_(std::move(code)) {}
  int exitCode() const { return exitCode_; }
  const std::string& code() const { return code_; }

 private:
  int exitCode_;
  std::string code_;
};

/// The failures of a conversation that did not come about.
Failure failureOf(const agent::ClientError& error);
Failure failureOf(const base::SupportFolderError& error);

/// The failure for an answer that lacks what it must hold.
Failure notUnderstood();

/// What every command may be given.
struct Options {
  std::optional<std::string> supportFolder;
  std::string requestor = "sorvane command line";
  bool json = false;
  bool noInput = false;
};

/// Session is one conversation with sorvaned: it finds the endpoint once and sends requests as the controller.
class Session {
 public:
  explicit Session(const Options& options) : options_(options) {}

  /// Throws Failure when there is no answer, or when the answer is a refusal.
  agent::AgentResponse send(agent::AgentRequest request, bool asks, const std::stop_token& withdrawal = {});

  /// Arguments of an owner's action.
  using Arguments = agent::Payload;
  enum class Asks { no, yes };
  agent::AgentResponse manage(std::string_view action, Arguments arguments, Asks asks,
                              std::optional<base::SecretText> value = {});
  /// The same for an action that asks, with `attend` called again and again on this thread until the answer is there.
  /// When that returns false the request is withdrawn, which throws unless the answer was quicker.
  agent::AgentResponse manageAttended(std::string_view action, Arguments arguments,
                                      std::optional<base::SecretText> value, const std::function<bool()>& attend);
  /// The action's JSON document.
  base::Json read(std::string_view action, Arguments arguments = {});
  /// Follows the job whose id `started` holds to its end, draws its progress, and cancels it on Ctrl-C; a second one
  /// ends the program. Returns its document, or null. `between` is called each time that it was looked at and still
  /// ran.
  base::Json follow(const agent::AgentResponse& started, const std::function<void()>& between = {});

  const Options& options() const { return options_; }

 private:
  const Options& options_;
  std::optional<agent::AgentInfo> endpoint_;
};

/// Whether progress is drawn, which is on a terminal; and one line of it, which the next one replaces.
bool drawsProgress();
void drawProgress(std::string_view kind, std::int64_t done, std::int64_t total);

/// The text that an answer must hold; throws Failure when it does not.
const base::SecretText& valueOf(const agent::AgentResponse& response);

/// A JSON array of text, as payload arguments carry lists.
std::string listArgument(const std::vector<std::string>& items);

}  // namespace sorvane::cli
