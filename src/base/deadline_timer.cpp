#include "base/deadline_timer.h"

#include <algorithm>

namespace sorvane::base {

void DeadlineTimer::stop() {
  std::jthread thread;
  {
    const Lock lock(mutex_);
    stopped_ = true;
    thread = std::move(thread_);
  }
  thread.request_stop();
  if (thread.joinable()) thread.join();
}

void DeadlineTimer::arm(std::optional<Instant> deadline) {
  const Lock lock(mutex_);
  deadline_ = deadline;
  ++armings_;
  if (deadline && !stopped_ && !thread_.joinable())
    thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
  changed_.notify_all();
}

void DeadlineTimer::run(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    {
      Lock lock(mutex_);
      const std::uint64_t seen = armings_;
      const auto rearmed = [&]() REQUIRES(mutex_) { return armings_ != seen; };
      if (!deadline_) {
        changed_.wait(lock.mutex(), stop, rearmed);
        continue;
      }
      const Instant now = clock_.instant();
      if (now < *deadline_) {
        changed_.wait_for(lock.mutex(), stop, std::min<std::chrono::nanoseconds>(*deadline_ - now, kLookAgain),
                          rearmed);
        continue;
      }
      deadline_.reset();
    }
    due_();
  }
}

}  // namespace sorvane::base
