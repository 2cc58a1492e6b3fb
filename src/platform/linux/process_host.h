#pragma once

#include <sys/types.h>

#include <memory>

#include "agent/process_host.h"
#include "base/descriptor.h"
#include "base/mutex.h"

namespace sorvane::platform {

/// LinuxProcessHost starts commands through a small process of its own that is forked when the host is constructed,
/// before the application holds secrets or starts threads: construct it first thing in main. For each command that
/// process forks a supervisor, which adopts whatever the command leaves behind (PR_SET_CHILD_SUBREAPER), so that every
/// descendant can be found and ended, those that left the process group too. When the application dies, the supervisors
/// end their commands.
class LinuxProcessHost final : public agent::ProcessHost {
 public:
  /// Throws LaunchError when the process cannot be made.
  LinuxProcessHost();
  ~LinuxProcessHost() override;

  std::unique_ptr<agent::HostedProcess> launch(const agent::LaunchSpec& spec) override;

 private:
  // Constant after construction.
  pid_t pid_ = -1;
  base::Descriptor channel_;
  // Serialises the messages on channel_; held for one send.
  base::Mutex mutex_;
};

}  // namespace sorvane::platform
