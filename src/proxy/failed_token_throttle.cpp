#include "proxy/failed_token_throttle.h"

#include <algorithm>

namespace sorvane::proxy {

std::optional<int> ProxyFailedTokenThrottle::note(base::Instant now) {
  const base::Lock lock(lock_);
  while (!failures_.empty() && now - failures_.front() >= window_) failures_.pop_front();
  if (failures_.size() < count_) {
    failures_.push_back(now);
    return std::nullopt;
  }
  const auto room = failures_.empty() ? window_ : failures_.front() + window_ - now;
  return std::max(1, static_cast<int>(std::chrono::ceil<std::chrono::seconds>(room).count()));
}

void ProxyFailedTokenThrottle::reset() {
  const base::Lock lock(lock_);
  failures_.clear();
}

bool ProxyFailedTokenThrottle::beginWaiting() {
  const base::Lock lock(lock_);
  if (waiting_ == kMostWaiting) return false;
  ++waiting_;
  return true;
}

void ProxyFailedTokenThrottle::endWaiting() {
  const base::Lock lock(lock_);
  --waiting_;
}

}  // namespace sorvane::proxy
