#pragma once

#include "agent/masking.h"
#include "cli/child_command.h"

namespace sorvane::cli {

// Both run a command to its end, pass on its output with the values masked, and return its exit code. They wipe its
// environment once it has started, and throw Failure when it cannot be. What the command leaves running in the
// background is not waited for.

/// On a pseudo-terminal between the command and the terminal of this process. When the command is stopped, so is this
/// process's group.
int runOnTerminal(const ChildCommand& command, const agent::Masker& masker);

/// On two pipes for its output, with this process's standard input, in this process's group.
int runOnPipes(const ChildCommand& command, const agent::Masker& masker);

}  // namespace sorvane::cli
