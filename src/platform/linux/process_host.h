#pragma once

#include <memory>

#include "agent/process_host.h"
#include "platform/shared/forked_host.h"

namespace sorvane::platform {

/// LinuxProcessHost starts commands through a process of its own, as ForkedHost says: construct it first thing in main.
/// Each command's supervisor adopts whatever the command leaves behind (PR_SET_CHILD_SUBREAPER), so that every
/// descendant can be found and ended, those that left the process group too.
class LinuxProcessHost final : public agent::ProcessHost {
 public:
  /// Throws LaunchError when the process cannot be made.
  LinuxProcessHost();

  std::unique_ptr<agent::HostedProcess> launch(const agent::LaunchSpec& spec) override;

 private:
  ForkedHost host_;
};

}  // namespace sorvane::platform
