#include "platform/shared/forked_host.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "platform/shared/command_channel.h"

namespace sorvane::platform {
namespace {

base::SocketPair socketPair() {
  auto pair = base::openSocketPair();
  if (!pair) failLaunch(errno);
  return *std::move(pair);
}

/// The host process: waits for descriptors on `channel` and forks a supervisor for each, until the channel closes.
[[noreturn]] void hostCommands(int channel, ForkedHost::Supervise supervise) {
  // Ended by the close of the channel, not by the keys that a person types for the application.
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) ::signal(number, SIG_IGN);
  ::signal(SIGCHLD, SIG_IGN);  // supervisors need no burial
  ::signal(SIGPIPE, SIG_IGN);
  ::setsid();
  for (std::array<int, 2> descriptors{}; receiveDescriptors(channel, descriptors);) {
    if (::fork() == 0) {
      ::close(channel);
      ::signal(SIGCHLD, SIG_DFL);
      supervise(descriptors[0], descriptors[1]);
      ::_exit(0);
    }
    for (const int fd : descriptors) ::close(fd);
  }
  ::_exit(0);
}

}  // namespace

ForkedHost::ForkedHost(Supervise supervise) {
  base::SocketPair channel = socketPair();
  pid_ = ::fork();
  if (pid_ < 0) failLaunch(errno);
  if (pid_ == 0) {
    // The other end must close when the application goes, so no copy of it, nor of anything else, may live on here.
    // Either may have the number of a standard descriptor that was closed.
    channel.first.reset();
    constexpr int kChannel = 3;
    const int fd = channel.second.release();
    if (fd != kChannel && (::dup2(fd, kChannel) < 0 || ::close(fd) != 0)) ::_exit(1);
    base::closeAbove(kChannel);
    hostCommands(kChannel, supervise);
  }
  channel_ = std::move(channel.first);
}

ForkedHost::~ForkedHost() {
  channel_.reset();
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
}

std::unique_ptr<agent::HostedProcess> ForkedHost::launch(const agent::LaunchSpec& spec, base::Pipe output) {
  const base::SecretText message = launchMessage(spec);
  base::SocketPair control = socketPair();
  {
    const base::Lock lock(mutex_);
    sendDescriptors(channel_.get(), control.second.get(), output.write.get());
  }
  control.second.reset();
  output.write.reset();
  return startSupervised(std::move(control.first), std::move(output.read), message);
}

}  // namespace sorvane::platform
