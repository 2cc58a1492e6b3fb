#include "platform/linux/process_host.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <system_error>

#include "platform/linux/supervisor.h"

namespace sorvane::platform {

using agent::LaunchError;

namespace {

[[noreturn]] void fail(int number) {
  throw LaunchError(std::system_category().message(number));
}

struct Pair {
  base::Descriptor mine, theirs;
};

Pair socketPair() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) fail(errno);
  return {base::Descriptor(ends[0]), base::Descriptor(ends[1])};
}

Pair outputPipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) fail(errno);
  // A larger pipe lets a command that prints much go on while we mask; a refusal changes nothing but speed.
  constexpr int kPipeBytes = 256 * 1024;
  ::fcntl(ends[0], F_SETPIPE_SZ, kPipeBytes);
  return {base::Descriptor(ends[0]), base::Descriptor(ends[1])};
}

void sendDescriptors(int channel, int first, int second) {
  char word = 'r';
  iovec part{&word, 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(2 * sizeof(int))> space{};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = space.data();
  message.msg_controllen = space.size();
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(2 * sizeof(int));
  const std::array<int, 2> descriptors{first, second};
  std::memcpy(CMSG_DATA(header), descriptors.data(), sizeof descriptors);
  while (::sendmsg(channel, &message, MSG_NOSIGNAL) < 0) {
    if (errno == EINTR) continue;
    throw LaunchError("The process that starts commands has ended. Restart sorvaned.");
  }
}

/// The message that supervisor.cpp reads: three counts, then directory, words and variables, each ended by NUL.
base::SecretText launchMessage(const agent::LaunchSpec& spec) {
  base::SecretText strings;
  const auto add = [&](std::string_view text) {
    if (text.find('\0') != std::string_view::npos) fail(EINVAL);
    strings.append(text);
    strings.push_back('\0');
  };
  add(spec.directory);
  for (const std::string& word : spec.words) add(word);
  for (const base::SecretText& variable : spec.environment) add(variable.view());
  const std::array<std::uint64_t, 3> counts{strings.size(), spec.words.size(), spec.environment.size()};
  base::SecretText message;
  message.reserve(sizeof counts + strings.size());
  message.append({reinterpret_cast<const char*>(counts.data()), sizeof counts});
  message.append(strings.view());
  return message;
}

void sendAll(int socket, std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = ::send(socket, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) fail(errno);
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
}

/// False when the other end closed before a whole message came.
template <typename Message>
bool receive(int socket, Message& message) {
  auto* at = reinterpret_cast<char*>(&message);
  std::size_t left = sizeof message;
  while (left > 0) {
    const ssize_t got = ::recv(socket, at, left, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    at += got;
    left -= static_cast<std::size_t>(got);
  }
  return true;
}

class SupervisedProcess final : public agent::HostedProcess {
 public:
  SupervisedProcess(base::Descriptor control, base::Descriptor output, pid_t group)
      : control_(std::move(control)), output_(std::move(output)), group_(group) {}

  pid_t group() const override { return group_; }
  int output() const override { return output_.get(); }
  int ended() const override { return control_.get(); }

  std::int32_t wait() override {
    {
      const base::Lock lock(mutex_);
      if (status_) return *status_;
    }
    Ended message{};
    // A supervisor that was killed cannot say how its command ended.
    const bool told = receive(control_.get(), message);
    const std::int32_t status = !told                       ? 128 + SIGKILL
                                : WIFEXITED(message.status) ? WEXITSTATUS(message.status)
                                                            : 128 + WTERMSIG(message.status);
    const base::Lock lock(mutex_);
    status_ = status;
    return status;
  }

  void signal(int number) override {
    // Under the lock, so that the group cannot be another one's by the time of the call: its leader is still unburied.
    const base::Lock lock(mutex_);
    if (!status_) ::kill(-group_, number);
  }

  void clear() override {
    const char word = 'c';
    [[maybe_unused]] const auto sent = ::send(control_.get(), &word, 1, MSG_NOSIGNAL);
  }

 private:
  // Constant after construction.
  base::Descriptor control_;
  base::Descriptor output_;
  const pid_t group_;
  base::Mutex mutex_;
  std::optional<std::int32_t> status_ GUARDED_BY(mutex_);
};

}  // namespace

LinuxProcessHost::LinuxProcessHost() {
  Pair channel = socketPair();
  pid_ = ::fork();
  if (pid_ < 0) fail(errno);
  if (pid_ == 0) {
    // The other end must close when the application goes, so no copy of it may live on here.
    channel.mine.reset();
    const int fd = channel.theirs.release();
    if (fd > 3) ::close_range(3, static_cast<unsigned>(fd - 1), 0);
    ::close_range(static_cast<unsigned>(fd + 1), ~0U, 0);
    hostCommands(fd);
  }
  channel_ = std::move(channel.mine);
}

LinuxProcessHost::~LinuxProcessHost() {
  channel_.reset();
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
}

std::unique_ptr<agent::HostedProcess> LinuxProcessHost::launch(const agent::LaunchSpec& spec) {
  const base::SecretText message = launchMessage(spec);
  Pair control = socketPair();
  Pair output = outputPipe();
  {
    const base::Lock lock(mutex_);
    sendDescriptors(channel_.get(), control.theirs.get(), output.theirs.get());
  }
  control.theirs.reset();
  output.theirs.reset();
  sendAll(control.mine.get(), message.view());
  Started started{};
  if (!receive(control.mine.get(), started)) {
    throw LaunchError("The process that starts commands has ended. Restart sorvaned.");
  }
  if (started.error != 0) fail(started.error);
  return std::make_unique<SupervisedProcess>(std::move(control.mine), std::move(output.mine), started.group);
}

}  // namespace sorvane::platform
