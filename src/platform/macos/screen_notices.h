#pragma once

#include <functional>

#include "platform/macos/session_tracker.h"

namespace sorvane::platform {

/// ScreenNotices tells when the screen is locked and unlocked, by the notices that every process may hear (and send).
/// Of the main thread alone, which runs its loop.
class ScreenNotices {
 public:
  explicit ScreenNotices(std::function<void(SessionEvent)> tell);
  ~ScreenNotices();
  ScreenNotices(const ScreenNotices&) = delete;
  ScreenNotices& operator=(const ScreenNotices&) = delete;

 private:
  const std::function<void(SessionEvent)> tell_;
};

}  // namespace sorvane::platform
