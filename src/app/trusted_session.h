#pragma once

#include <chrono>
#include <optional>

#include "base/clock.h"
#include "base/mutex.h"

namespace sorvane::app {

/// TrustedSession is whether the owner's recent presence is vouched for: from an unlock through the system's check
/// until the vault is locked, the session goes away, or nothing was seen of the owner for kLongest. A request on a
/// socket is no sign of the owner. Any thread.
class TrustedSession {
 public:
  static constexpr std::chrono::minutes kLongest{15};

  explicit TrustedSession(const base::Clock& clock) : clock_(clock) {}

  void begin() {
    const base::Lock lock(mutex_);
    lastSeen_ = clock_.instant();
  }
  void end() {
    const base::Lock lock(mutex_);
    lastSeen_.reset();
  }
  /// The owner answered a question. Begins nothing.
  void noteOwner() {
    const base::Lock lock(mutex_);
    if (isFresh()) lastSeen_ = clock_.instant();
  }
  bool holds() {
    const base::Lock lock(mutex_);
    return isFresh();
  }

 private:
  bool isFresh() REQUIRES(mutex_) {
    if (lastSeen_ && clock_.instant() - *lastSeen_ >= kLongest) lastSeen_.reset();
    return lastSeen_.has_value();
  }

  const base::Clock& clock_;
  // Guarded. A leaf.
  base::Mutex mutex_;
  std::optional<base::Instant> lastSeen_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::app
