#include "base/open_descriptors.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

namespace sorvane::base {

Descriptor openSocket(int family, int type) {
  return Descriptor(::socket(family, type | SOCK_CLOEXEC, 0));
}

Descriptor acceptFrom(int listener) {
  return Descriptor(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
}

int quietSend() {
  return MSG_NOSIGNAL;
}

void noticeVanishedPeer(int connection) {
  const auto set = [connection](int level, int option, int value) {
    ::setsockopt(connection, level, option, &value, sizeof value);
  };
  constexpr int kIdleSeconds = 30, kBetweenSeconds = 10, kProbes = 3, kUnacknowledgedMilliseconds = 60'000;
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPIDLE, kIdleSeconds);
  set(IPPROTO_TCP, TCP_KEEPINTVL, kBetweenSeconds);
  set(IPPROTO_TCP, TCP_KEEPCNT, kProbes);
  // No probe is sent while anything waits for its acknowledgement, and that takes a quarter of an hour by itself.
  set(IPPROTO_TCP, TCP_USER_TIMEOUT, kUnacknowledgedMilliseconds);
}

std::optional<Pipe> openPipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return std::nullopt;
  return Pipe{Descriptor(ends[0]), Descriptor(ends[1])};
}

std::optional<SocketPair> openSocketPair() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) return std::nullopt;
  return SocketPair{Descriptor(ends[0]), Descriptor(ends[1])};
}

void closeAbove(int last) {
  ::close_range(static_cast<unsigned>(last) + 1, ~0U, 0);
}

}  // namespace sorvane::base
