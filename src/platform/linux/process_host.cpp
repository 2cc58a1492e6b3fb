#include "platform/linux/process_host.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "platform/linux/supervisor.h"
#include "platform/shared/command_channel.h"

namespace sorvane::platform {

LinuxProcessHost::LinuxProcessHost() : host_(&superviseCommand) {}

std::unique_ptr<agent::HostedProcess> LinuxProcessHost::launch(const agent::LaunchSpec& spec) {
  auto output = base::openPipe();
  if (!output) failLaunch(errno);
  // A larger pipe lets a command that prints much go on while we mask; a refusal changes nothing but speed.
  constexpr int kPipeBytes = 256 * 1024;
  ::fcntl(output->read.get(), F_SETPIPE_SZ, kPipeBytes);
  return host_.launch(spec, *std::move(output));
}

}  // namespace sorvane::platform
