#include "base/open_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>

namespace sorvane::base {

bool setNonBlocking(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

std::optional<Pipe> openWakePipe() {
  auto pipe = openPipe();
  if (!pipe || !setNonBlocking(pipe->read.get()) || !setNonBlocking(pipe->write.get())) return std::nullopt;
  return pipe;
}

void wake(const Pipe& pipe) {
  if (pipe.write) [[maybe_unused]]
    const auto written = ::write(pipe.write.get(), "", 1);
}

bool drain(const Pipe& pipe) {
  bool any = false;
  std::array<char, 64> drained;
  while (pipe.read && ::read(pipe.read.get(), drained.data(), drained.size()) > 0) any = true;
  return any;
}

}  // namespace sorvane::base
