#include "base/open_descriptors.h"

#include <fcntl.h>
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
