#include "platform/shared/command_channel.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>

#include "base/mutex.h"

namespace sorvane::platform {

using agent::LaunchError;

namespace {

constexpr const char* kHostEnded = "The process that starts commands has ended. Restart sorvaned.";

/// A message with room for two descriptors; its parts point into this object.
struct DescriptorMessage {
  DescriptorMessage() {
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = space.data();
    message.msg_controllen = space.size();
  }
  DescriptorMessage(const DescriptorMessage&) = delete;
  DescriptorMessage& operator=(const DescriptorMessage&) = delete;

  char word = 'r';
  iovec part{&word, 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(2 * sizeof(int))> space{};
  msghdr message{};
};

void sendAll(int socket, std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = ::send(socket, text.data(), text.size(), base::quietSend());
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) failLaunch(errno);
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
}

/// False when the other end closed before a whole message came.
bool receiveAll(int socket, void* message, std::size_t size) {
  auto* at = static_cast<char*>(message);
  while (size > 0) {
    const ssize_t got = ::recv(socket, at, size, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    at += got;
    size -= static_cast<std::size_t>(got);
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
    const bool told = receiveAll(control_.get(), &message, sizeof message);
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
    [[maybe_unused]] const auto sent = ::send(control_.get(), &word, 1, base::quietSend());
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

void failLaunch(int number) {
  throw LaunchError(std::system_category().message(number));
}

// Three counts (bytes of text, words, variables), then directory, words and variables, each ended by NUL.
base::SecretText launchMessage(const agent::LaunchSpec& spec) {
  base::SecretText strings;
  const auto add = [&](std::string_view text) {
    if (text.find('\0') != std::string_view::npos) failLaunch(EINVAL);
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

bool readLaunch(int control, Launch& launch) {
  std::array<std::uint64_t, 3> counts{};
  if (!receiveAll(control, counts.data(), sizeof counts)) return false;
  launch.text.resize(static_cast<std::size_t>(counts[0]));
  if (!receiveAll(control, launch.text.data(), launch.text.size())) return false;
  char* at = launch.text.data();
  const auto next = [&] {
    char* const string = at;
    at += std::strlen(at) + 1;
    return string;
  };
  launch.directory = next();
  static char env[] = "/usr/bin/env";
  launch.words.push_back(env);
  for (std::uint64_t i = 0; i < counts[1]; ++i) launch.words.push_back(next());
  for (std::uint64_t i = 0; i < counts[2]; ++i) launch.environment.push_back(next());
  launch.words.push_back(nullptr);
  launch.environment.push_back(nullptr);
  return true;
}

void sendDescriptors(int channel, int control, int output) {
  DescriptorMessage sent;
  cmsghdr* const header = CMSG_FIRSTHDR(&sent.message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(2 * sizeof(int));
  const std::array<int, 2> descriptors{control, output};
  std::memcpy(CMSG_DATA(header), descriptors.data(), sizeof descriptors);
  while (::sendmsg(channel, &sent.message, base::quietSend()) < 0) {
    if (errno != EINTR) throw LaunchError(kHostEnded);
  }
}

bool receiveDescriptors(int channel, std::array<int, 2>& descriptors) {
  for (;;) {
    DescriptorMessage received;
    const ssize_t got = ::recvmsg(channel, &received.message, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    const cmsghdr* const header = CMSG_FIRSTHDR(&received.message);
    if (header == nullptr || header->cmsg_type != SCM_RIGHTS || header->cmsg_len != CMSG_LEN(2 * sizeof(int))) continue;
    std::memcpy(descriptors.data(), CMSG_DATA(header), sizeof descriptors);
    // The host process has one thread, so nothing is started in between.
    for (const int fd : descriptors) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    return true;
  }
}

std::unique_ptr<agent::HostedProcess> startSupervised(base::Descriptor control, base::Descriptor output,
                                                      const base::SecretText& message) {
  sendAll(control.get(), message.view());
  Started started{};
  if (!receiveAll(control.get(), &started, sizeof started)) throw LaunchError(kHostEnded);
  if (started.error != 0) failLaunch(started.error);
  return std::make_unique<SupervisedProcess>(std::move(control), std::move(output), started.group);
}

template <typename Message>
void tell(int control, const Message& message) {
  [[maybe_unused]] const auto sent = ::send(control, &message, sizeof message, base::quietSend());
}
template void tell(int control, const Started& message);
template void tell(int control, const Ended& message);

}  // namespace sorvane::platform
