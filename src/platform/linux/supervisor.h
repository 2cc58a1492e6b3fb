#pragma once

namespace sorvane::platform {

// What the application, the host process and a supervisor say to each other. All of it stays on this machine and within
// one build, so numbers travel in the machine's own form.

/// Supervisor to application, one of each in this order.
struct Started {
  int error;  ///< 0, or the errno that kept the command from starting
  int group;  ///< the command's process group
};
struct Ended {
  int status;  ///< as waitpid gives it
};

/// The host process: waits for descriptors on `channel` and forks a supervisor for each. Returns when the channel
/// closes.
[[noreturn]] void hostCommands(int channel);

/// One supervisor: reads a launch message from `control`, starts the command with `output` as its standard output and
/// error, and stays until no descendant is left.
[[noreturn]] void superviseCommand(int control, int output);

/// Seconds between the request to end and the end.
inline constexpr int kGraceSeconds = 2;

}  // namespace sorvane::platform
