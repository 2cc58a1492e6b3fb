#include "base/hangup.h"

#include <poll.h>
#include <sys/event.h>

#include <array>
#include <cerrno>
#include <cstdint>

#include "base/descriptor.h"

namespace sorvane::base {
namespace {

constexpr int kPauseMilliseconds = 200;

bool add(int queue, int fd, int filter, int flags, std::size_t place) {
  struct kevent change {};
  change.ident = static_cast<uintptr_t>(fd);
  change.filter = static_cast<int16_t>(filter);
  change.flags = static_cast<uint16_t>(EV_ADD | flags);
  change.udata = reinterpret_cast<void*>(static_cast<uintptr_t>(place));
  return ::kevent(queue, &change, 1, nullptr, 0, nullptr) == 0;
}

}  // namespace

std::vector<std::size_t> waitForHangup(const std::vector<int>& sockets, int wake) {
  std::vector<std::size_t> gone;
  // poll(2) tells a peer that ended its sending like one that is gone. That nothing can be written any more is true of
  // the latter alone. A socket that can be written to is told once and then no more.
  const Descriptor queue(::kqueue());
  if (!queue || !add(queue.get(), wake, EVFILT_READ, 0, 0)) {
    // Out of descriptors for the moment: the caller asks again.
    pollfd woken{wake, POLLIN, 0};
    ::poll(&woken, 1, kPauseMilliseconds);
    return gone;
  }
  // One that was closed meanwhile is nobody's to tell about.
  for (std::size_t i = 0; i < sockets.size(); ++i) add(queue.get(), sockets[i], EVFILT_WRITE, EV_CLEAR, i);
  for (bool isWoken = false; !isWoken && gone.empty();) {
    std::array<struct kevent, 16> events{};
    const int count = ::kevent(queue.get(), nullptr, 0, events.data(), static_cast<int>(events.size()), nullptr);
    if (count < 0 && errno != EINTR) break;
    for (int i = 0; i < count; ++i) {
      const struct kevent& event = events[static_cast<std::size_t>(i)];
      if (event.filter == EVFILT_READ) {
        isWoken = true;
      } else if ((event.flags & EV_EOF) != 0) {
        gone.push_back(static_cast<std::size_t>(reinterpret_cast<uintptr_t>(event.udata)));
      }
    }
  }
  return gone;
}

}  // namespace sorvane::base
