#pragma once

#include <functional>
#include <optional>
#include <thread>

#include "base/clock.h"
#include "base/mutex.h"

namespace sorvane::base {

/// DeadlineTimer calls a function on a thread of its own once a clock's instant has passed. The thread is started by
/// the first deadline and ended with this object, which waits for a call that runs. Any thread may arm it, the call
/// included. While armed the clock is looked at every kLookAgain, because waiting does not count the time that the
/// computer sleeps.
class DeadlineTimer {
 public:
  static constexpr std::chrono::seconds kLookAgain{30};

  /// `due` must not throw.
  DeadlineTimer(const Clock& clock, std::function<void()> due) : clock_(clock), due_(std::move(due)) {}
  ~DeadlineTimer() { stop(); }
  DeadlineTimer(const DeadlineTimer&) = delete;
  DeadlineTimer& operator=(const DeadlineTimer&) = delete;

  /// Ends the thread for good and waits for a call that runs; deadlines set later do nothing. Not to be called by the
  /// function itself.
  void stop();
  /// Replaces the deadline; nullopt: none.
  void arm(std::optional<Instant> deadline);

 private:
  void run(const std::stop_token& stop);

  // Constant after construction.
  const Clock& clock_;
  const std::function<void()> due_;
  // Guarded. A leaf: the function is called without it.
  Mutex mutex_;
  Condition changed_;
  std::optional<Instant> deadline_ GUARDED_BY(mutex_);
  std::uint64_t armings_ GUARDED_BY(mutex_) = 0;
  bool stopped_ GUARDED_BY(mutex_) = false;
  std::jthread thread_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::base
