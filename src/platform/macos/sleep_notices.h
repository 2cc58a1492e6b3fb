#pragma once

#include <functional>
#include <memory>

#include "platform/macos/session_tracker.h"

namespace sorvane::platform {

/// SleepNotices tells when this Mac goes to sleep, which waits until the hold is gone (for half a minute at most), and
/// when it woke. Of the main thread alone, which runs its loop; a hold may be let go on any thread and at any time.
class SleepNotices {
 public:
  using Tell = std::function<void(SessionEvent, const unlock::SessionSignals::Hold&)>;

  explicit SleepNotices(Tell tell);
  ~SleepNotices();
  SleepNotices(const SleepNotices&) = delete;
  SleepNotices& operator=(const SleepNotices&) = delete;
  /// Whether the system tells at all; where not, sleep waits for nothing.
  bool areTold() const { return registration_ != nullptr; }

 private:
  class Registration;

  const Tell tell_;
  /// Shared with the holds.
  const std::shared_ptr<Registration> registration_;
};

}  // namespace sorvane::platform
