#include "platform/macos/process_host.h"

#include <cerrno>
#include <utility>

#include "base/open_descriptors.h"
#include "platform/macos/supervisor.h"
#include "platform/shared/command_channel.h"

namespace sorvane::platform {

MacProcessHost::MacProcessHost() : host_(&superviseCommand) {}

std::unique_ptr<agent::HostedProcess> MacProcessHost::launch(const agent::LaunchSpec& spec) {
  auto output = base::openPipe();
  if (!output) failLaunch(errno);
  return host_.launch(spec, *std::move(output));
}

}  // namespace sorvane::platform
