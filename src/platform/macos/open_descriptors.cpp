#include "base/open_descriptors.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

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

std::optional<Pipe> openPipe() {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) return std::nullopt;
  Pipe pipe{marked(ends[0]), marked(ends[1])};
  if (!pipe.read || !pipe.write) return std::nullopt;
  return pipe;
}

}  // namespace sorvane::base
