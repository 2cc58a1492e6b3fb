#include "base/hangup.h"

#include <poll.h>

#include <cerrno>

namespace sorvane::base {

std::vector<std::size_t> waitForHangup(const std::vector<int>& sockets, int wake) {
  std::vector<pollfd> polled;
  // Without an event that is asked for, the hang-up of both sides alone is told.
  for (const int socket : sockets) polled.push_back({socket, 0, 0});
  polled.push_back({wake, POLLIN, 0});
  std::vector<std::size_t> gone;
  while (::poll(polled.data(), static_cast<nfds_t>(polled.size()), -1) < 0) {
    if (errno != EINTR) return gone;
  }
  for (std::size_t i = 0; i < sockets.size(); ++i) {
    if ((polled[i].revents & (POLLHUP | POLLERR)) != 0) gone.push_back(i);
  }
  return gone;
}

}  // namespace sorvane::base
