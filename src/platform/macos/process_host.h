#pragma once

#include <memory>

#include "agent/process_host.h"
#include "platform/shared/forked_host.h"

namespace sorvane::platform {

/// MacProcessHost starts commands through a process of its own, as ForkedHost says: construct it first thing in main,
/// before any framework is used. The system hands orphans to process 1, so each command's supervisor follows the
/// process group and the children of all that it knows: what left the group and lost its parent before it was seen is
/// not ended.
class MacProcessHost final : public agent::ProcessHost {
 public:
  /// Throws LaunchError when the process cannot be made.
  MacProcessHost();

  std::unique_ptr<agent::HostedProcess> launch(const agent::LaunchSpec& spec) override;

 private:
  ForkedHost host_;
};

}  // namespace sorvane::platform
