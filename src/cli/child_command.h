#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/secret_text.h"
#include "cli/env_line.h"

namespace sorvane::cli {

/// The environment block of a command: this process's own with variables over it. Wiped with it.
class ChildEnvironment {
 public:
  explicit ChildEnvironment(const std::vector<EnvLine>& variables);

  /// What execve takes; valid for the object's life.
  char* const* block() { return block_.data(); }
  /// Wipes the values, in a process that does not start the command itself.
  void forget();

 private:
  std::vector<base::SecretText> entries_;
  std::vector<char*> block_;
};

struct ChildCommand {
  const std::vector<std::string>& words;  ///< not empty; the first is looked up in the command's own PATH
  std::string directory;                  ///< empty: this one
  ChildEnvironment& environment;
};

/// Becomes the command. Returns errno when that is not possible.
int become(const ChildCommand& command);

/// Ends with the sentence and the exit code (126 or 127) for a command that could not be started for the reason
/// `error`; throws Failure.
[[noreturn]] void failToStart(const ChildCommand& command, int error);

/// What a shell gives as the exit code for a status of waitpid.
int exitCodeOf(int waitStatus);

}  // namespace sorvane::cli
