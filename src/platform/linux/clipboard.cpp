#include "platform/linux/clipboard.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "base/unicode.h"

extern char** environ;

namespace sorvane::platform {

namespace {

using base::Descriptor;
using Deadline = std::chrono::steady_clock::time_point;
using Words = std::vector<std::string>;

/// The words that read, write and clear the clipboard of this session; none where it has no clipboard.
struct Programs {
  Words read, write, clear;
};

bool isSet(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

bool onPath(const std::string& program) {
  const char* path = std::getenv("PATH");
  std::string_view rest = path == nullptr ? "" : path;
  while (!rest.empty()) {
    const std::size_t end = rest.find(':');
    const std::string folder(rest.substr(0, end));
    if (!folder.empty() && ::access((folder + "/" + program).c_str(), X_OK) == 0) return true;
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  }
  return false;
}

std::optional<Programs> programs() {
  if (isSet("WAYLAND_DISPLAY") && onPath("wl-copy") && onPath("wl-paste")) {
    // The type is named so that wl-copy does not look into the text to guess it.
    return Programs{
        {"wl-paste", "--no-newline", "--type", "text"}, {"wl-copy", "--type", "text/plain"}, {"wl-copy", "--clear"}};
  }
  if (isSet("DISPLAY") && onPath("xclip")) {
    const Words in{"xclip", "-selection", "clipboard", "-in"};
    return Programs{{"xclip", "-selection", "clipboard", "-out"}, in, in};
  }
  return std::nullopt;
}

int millisecondsUntil(Deadline deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

bool isReady(int fd, short events, Deadline deadline) {
  pollfd entry{fd, events, 0};
  while (true) {
    const int ready = ::poll(&entry, 1, millisecondsUntil(deadline));
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

/// Child is a started program in a process group of its own; it is killed and collected when it goes.
class Child {
 public:
  /// Standard input and output as given, standard error thrown away.
  Child(const Words& words, int input, int output) {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&files);
    posix_spawnattr_init(&attributes);
    redirect(files, input, STDIN_FILENO, O_RDONLY);
    redirect(files, output, STDOUT_FILENO, O_WRONLY);
    redirect(files, -1, STDERR_FILENO, O_WRONLY);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    if (::posix_spawnp(&pid_, arguments[0], &files, &attributes, arguments.data(), environ) != 0) pid_ = 0;
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    // The number cannot be reused before we collect the child.
    if (pid_ > 0) ended_.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
  }
  ~Child() {
    if (pid_ <= 0) return;
    ::kill(-pid_, SIGKILL);
    collect();
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  /// Whether it ended by itself, in time and well. What it left in the background stays.
  bool succeeds(Deadline deadline) {
    if (pid_ <= 0 || !ended_ || !isReady(ended_.get(), POLLIN, deadline)) return false;
    return collect() == 0;
  }

 private:
  static void redirect(posix_spawn_file_actions_t& files, int from, int to, int mode) {
    if (from < 0) {
      posix_spawn_file_actions_addopen(&files, to, "/dev/null", mode, 0);
    } else {
      posix_spawn_file_actions_adddup2(&files, from, to);
    }
  }
  int collect() {
    int status = -1;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = 0;
    return status;
  }
  pid_t pid_ = 0;
  Descriptor ended_;
};

/// Two ends of one stream. A socket, since writing to a reader that is gone must not raise a signal.
std::optional<std::array<Descriptor, 2>> stream() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return std::nullopt;
  return std::array{Descriptor(ends[0]), Descriptor(ends[1])};
}

bool sendAll(int socket, std::string_view text, Deadline deadline) {
  while (!text.empty()) {
    if (!isReady(socket, POLLOUT, deadline)) return false;
    const ssize_t sent = ::send(socket, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (sent < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

std::optional<base::SecretText> receiveAll(int socket, Deadline deadline) {
  base::SecretText text;
  std::array<char, 4096> chunk{};
  bool whole = false;
  while (isReady(socket, POLLIN, deadline)) {
    const ssize_t size = ::recv(socket, chunk.data(), chunk.size(), MSG_DONTWAIT);
    if (size < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    whole = size == 0;
    if (size <= 0) break;
    text.append({chunk.data(), static_cast<std::size_t>(size)});
    if (text.size() > kMaxClipboardBytes) break;
  }
  base::wipe(chunk.data(), chunk.size());
  if (!whole) return std::nullopt;
  return text;
}

}  // namespace

bool SystemClipboard::available() const {
  return programs().has_value();
}

std::optional<base::SecretText> SystemClipboard::read() {
  const auto tools = programs();
  auto ends = stream();
  if (!tools || !ends) return std::nullopt;
  const Deadline deadline = std::chrono::steady_clock::now() + patience_;
  Child child(tools->read, -1, (*ends)[1].get());
  (*ends)[1].reset();
  auto text = receiveAll((*ends)[0].get(), deadline);
  if (!text || !child.succeeds(deadline) || text->empty() || !base::isUtf8(text->view())) return std::nullopt;
  return text;
}

bool SystemClipboard::write(const base::SecretText& text) {
  const auto tools = programs();
  auto ends = stream();
  if (!tools || !ends) return false;
  const Deadline deadline = std::chrono::steady_clock::now() + patience_;
  Child child(text.empty() ? tools->clear : tools->write, (*ends)[1].get(), -1);
  (*ends)[1].reset();
  const bool sent = sendAll((*ends)[0].get(), text.view(), deadline);
  (*ends)[0].reset();
  return sent && child.succeeds(deadline);
}

}  // namespace sorvane::platform
