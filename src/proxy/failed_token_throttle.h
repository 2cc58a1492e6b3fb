#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>

#include "base/clock.h"
#include "base/mutex.h"

namespace sorvane::proxy {

/// ProxyFailedTokenThrottle counts the tokens that were not valid within the last `window`. Any thread.
class ProxyFailedTokenThrottle {
 public:
  static constexpr std::chrono::seconds kWindow{60};
  /// Throttled answers that may wait at once; a further one is given without waiting.
  static constexpr std::size_t kMostWaiting = 16;

  explicit ProxyFailedTokenThrottle(std::size_t count, std::chrono::nanoseconds window = kWindow)
      : count_(count), window_(window) {}

  /// Notes one failure. Where `count` of them lie in the window already this one is not noted, and the answer is the
  /// number of seconds, at least 1, until the window has room again.
  std::optional<int> note(base::Instant now);
  void reset();

  /// Waiting is the place of a throttled answer that waits.
  class Waiting {
   public:
    explicit Waiting(ProxyFailedTokenThrottle& throttle) : throttle_(throttle), granted_(throttle.beginWaiting()) {}
    ~Waiting() {
      if (granted_) throttle_.endWaiting();
    }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;
    bool granted() const { return granted_; }

   private:
    ProxyFailedTokenThrottle& throttle_;
    const bool granted_;
  };

 private:
  bool beginWaiting();
  void endWaiting();

  // Constant after construction.
  const std::size_t count_;
  const std::chrono::nanoseconds window_;
  // Guarded. A leaf.
  base::Mutex lock_;
  std::deque<base::Instant> failures_ GUARDED_BY(lock_);
  std::size_t waiting_ GUARDED_BY(lock_) = 0;
};

}  // namespace sorvane::proxy
