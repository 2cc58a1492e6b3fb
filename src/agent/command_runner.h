#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/secret_text.h"

namespace sorvane::agent {

class ProcessHost;

/// Bytes of masked output that are kept.
inline constexpr std::size_t kMaxOutputBytes = 200000;

/// What a run came to. `exitCode` is the process's termination status, 128 + n for signal n; absent when the command
/// never started or was cancelled.
struct RunResult {
  std::optional<std::int32_t> exitCode;
  std::string output;
  std::vector<std::string> warnings;
  bool started = false;
};

/// One variable of the environment that a command gets. Only `isSecret` values are masked in its output.
struct CommandVariable {
  std::string name;
  base::SecretText value;
  bool isSecret = true;
};

struct CommandRequest {
  std::vector<std::string> words;
  std::vector<CommandVariable> environment;  ///< complete; nothing else is inherited
  std::vector<std::string> warnings;         ///< passed through to the result
  std::string directory;
  std::chrono::seconds timeLimit{120};
};

/// CommandControl stops a command: safe to call before it started, while it runs and after it ended, from any thread.
/// Stopping sends SIGTERM to the command's process group and SIGKILL two seconds later.
class CommandControl {
 public:
  CommandControl();
  ~CommandControl();
  CommandControl(const CommandControl&) = delete;
  CommandControl& operator=(const CommandControl&) = delete;
  void stop();
  bool stopped() const;

 private:
  friend class CommandRunner;
  struct State;
  std::shared_ptr<State> state_;
};

/// CommandRunner runs commands with values injected and returns their combined, masked output. Any thread; `run` blocks
/// until the command has ended and what it left behind is being cleared away.
class CommandRunner {
 public:
  explicit CommandRunner(ProcessHost& host) : host_(host) {}

  /// A refusal ("Enter a valid command.", "Project folder is missing. Choose an existing absolute directory.", "Command
  /// cancelled.", or the system's reason) comes back as `failure`, with `started` false.
  struct Outcome {
    RunResult result;
    std::optional<std::string> failure;
  };
  Outcome run(const CommandRequest& request, CommandControl& control);

 private:
  ProcessHost& host_;
};

}  // namespace sorvane::agent
