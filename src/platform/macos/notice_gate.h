#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "base/mutex.h"

namespace sorvane::platform {

/// Notice is text as the system takes it: UTF-8 without zero bytes.
struct Notice {
  Notice(const std::string& title, const std::string& body);
  std::string title, body;
};

/// NoticeGate keeps notices while the owner is asked whether they may be shown, which happens once. Any thread.
class NoticeGate {
 public:
  /// Of more that wait the oldest are dropped.
  static constexpr std::size_t kMaxWaiting = 16;

  /// What is to be done about a notice. ask: the owner, and the notice waits as with wait; show: it, or let the system
  /// drop it, which knows what the owner says by then.
  enum class Next { ask, wait, show };
  Next take(const Notice& notice);
  /// The owner answered. Returns what waited, oldest first, which is to be shown or dropped as with show.
  std::vector<Notice> answered();

 private:
  enum class State { unasked, asking, answered };
  // Guarded. A leaf.
  base::Mutex mutex_;
  State state_ GUARDED_BY(mutex_) = State::unasked;
  std::deque<Notice> waiting_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::platform
