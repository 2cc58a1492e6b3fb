#include "base/open_descriptors.h"

#include <fcntl.h>
#include <libproc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <vector>

namespace sorvane::base {
namespace {

/// The system has no call that opens and marks at once. A program that another thread starts in between inherits
/// nothing all the same: programs are started with every descriptor closed that they were not given.
Descriptor marked(int fd) {
  Descriptor opened(fd);
  if (opened && ::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) opened.reset();
  return opened;
}

Descriptor quiet(Descriptor socket) {
  const int on = 1;
  // Refused, with EINVAL, for a connection that is already gone; its first send says so.
  if (socket && ::setsockopt(socket.get(), SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on) != 0 && errno != EINVAL) {
    socket.reset();
  }
  return socket;
}

}  // namespace

Descriptor openSocket(int family, int type) {
  return quiet(marked(::socket(family, type, 0)));
}

Descriptor acceptFrom(int listener) {
  Descriptor socket = quiet(marked(::accept(listener, nullptr, nullptr)));
  // It takes over the listener's way of waiting.
  if (socket && ::fcntl(socket.get(), F_SETFL, ::fcntl(socket.get(), F_GETFL) & ~O_NONBLOCK) != 0) socket.reset();
  return socket;
}

int quietSend() {
  return 0;
}

void noticeVanishedPeer(int connection) {
  const auto set = [connection](int level, int option, int value) {
    ::setsockopt(connection, level, option, &value, sizeof value);
  };
  constexpr int kIdleSeconds = 30, kBetweenSeconds = 10, kProbes = 3, kUnacknowledgedSeconds = 60;
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPALIVE, kIdleSeconds);
  set(IPPROTO_TCP, TCP_KEEPINTVL, kBetweenSeconds);
  set(IPPROTO_TCP, TCP_KEEPCNT, kProbes);
  // No probe is sent while anything waits for its acknowledgement.
  set(IPPROTO_TCP, TCP_RXT_CONNDROPTIME, kUnacknowledgedSeconds);
}

std::optional<Pipe> openPipe() {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) return std::nullopt;
  Pipe pipe{marked(ends[0]), marked(ends[1])};
  if (!pipe.read || !pipe.write) return std::nullopt;
  return pipe;
}

std::optional<SocketPair> openSocketPair() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) return std::nullopt;
  SocketPair pair{quiet(marked(ends[0])), quiet(marked(ends[1]))};
  if (!pair.first || !pair.second) return std::nullopt;
  return pair;
}

void closeAbove(int last) {
  const int size = ::proc_pidinfo(::getpid(), PROC_PIDLISTFDS, 0, nullptr, 0);
  std::vector<proc_fdinfo> open(static_cast<std::size_t>(std::max(size, 0)) / sizeof(proc_fdinfo));
  const int filled =
      ::proc_pidinfo(::getpid(), PROC_PIDLISTFDS, 0, open.data(), static_cast<int>(open.size() * sizeof(proc_fdinfo)));
  open.resize(std::min(open.size(), static_cast<std::size_t>(std::max(filled, 0)) / sizeof(proc_fdinfo)));
  for (const proc_fdinfo& descriptor : open) {
    if (descriptor.proc_fd > last) ::close(descriptor.proc_fd);
  }
}

}  // namespace sorvane::base
