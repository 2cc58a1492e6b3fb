#pragma once

#include <sys/types.h>

#include <memory>

#include "agent/process_host.h"
#include "base/descriptor.h"
#include "base/mutex.h"
#include "base/open_descriptors.h"

namespace sorvane::platform {

/// ForkedHost starts commands through a small process of its own that is forked when the host is constructed, before
/// the application holds secrets or starts threads: construct it first thing in main. For each command that process
/// forks a supervisor, which runs as the system's adapter says. When the application dies, the supervisors end their
/// commands.
class ForkedHost {
 public:
  /// One supervisor: reads a launch message from `control`, starts the command with `output` as its standard output and
  /// error, and stays until no descendant is left. Must not return.
  using Supervise = void (*)(int control, int output);

  /// Throws LaunchError when the process cannot be made.
  explicit ForkedHost(Supervise supervise);
  ~ForkedHost();
  ForkedHost(const ForkedHost&) = delete;
  ForkedHost& operator=(const ForkedHost&) = delete;

  /// As agent::ProcessHost::launch, with `output` as the command's output pipe. Any thread.
  std::unique_ptr<agent::HostedProcess> launch(const agent::LaunchSpec& spec, base::Pipe output);

 private:
  // Constant after construction.
  pid_t pid_ = -1;
  base::Descriptor channel_;
  // Serialises the messages on channel_; held for one send.
  base::Mutex mutex_;
};

}  // namespace sorvane::platform
