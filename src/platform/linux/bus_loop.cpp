#include "platform/linux/bus_loop.h"

#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>

namespace sorvane::platform {
namespace {

using std::chrono::milliseconds;

/// What poll(2) takes: the nearer of both times, -1 for none, rounded up so that it does not spin.
int pollTime(int busTime, const BusLoop::Deadline& deadline) {
  if (!deadline) return busTime;
  const auto rest = std::chrono::ceil<milliseconds>(*deadline - std::chrono::steady_clock::now()).count();
  const int own = static_cast<int>(std::clamp<std::int64_t>(rest, 0, 3'600'000));
  return busTime < 0 ? own : std::min(busTime, own);
}

}  // namespace

BusLoop::BusLoop()
    : connection_(sdbus::createSystemBusConnection()), wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

BusLoop::~BusLoop() = default;

void BusLoop::wake() {
  const std::uint64_t one = 1;
  // Full means that a wake is waiting already.
  [[maybe_unused]] const auto written = ::write(wakeUp_.get(), &one, sizeof one);
}

BusLoop::End BusLoop::run(const std::function<bool()>& isDone, const Deadline& deadline) try {
  while (!isDone()) {
    if (deadline && std::chrono::steady_clock::now() >= *deadline) return End::timedOut;
    if (connection_->processPendingRequest()) continue;
    if (isDone()) break;
    const auto bus = connection_->getEventLoopPollData();
    pollfd watched[] = {{bus.fd, bus.events, 0}, {wakeUp_.get(), POLLIN, 0}};
    if (::poll(watched, 2, pollTime(bus.getPollTimeout(), deadline)) < 0 && errno != EINTR) return End::disconnected;
    std::uint64_t woken = 0;
    [[maybe_unused]] const auto got = ::read(wakeUp_.get(), &woken, sizeof woken);
  }
  return End::done;
} catch (const sdbus::Error&) {
  return End::disconnected;
}

}  // namespace sorvane::platform
