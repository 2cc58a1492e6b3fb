#include "proxy/velocity_stop.h"

#include <algorithm>

namespace sorvane::proxy {

void VelocityStop::setLimit(std::optional<std::int64_t> centsPerMinute) {
  limit_ =
      centsPerMinute ? multiplySaturating(std::max<std::int64_t>(*centsPerMinute, 0), kMicrosPerCent) : kMostMicros;
}

void VelocityStop::onPause(OnPause told) {
  const base::Lock lock(mutex_);
  told_ = std::move(told);
}

void VelocityStop::setPause(Grant& grant, Pause pause) {
  if ((grant.pause == Pause::running) != (pause == Pause::running)) paused_ += pause == Pause::running ? -1 : 1;
  grant.pause = pause;
}

void VelocityStop::resume(std::string_view lookupId) {
  const base::Lock lock(mutex_);
  const auto found = grants_.find(lookupId);
  if (found == grants_.end() || found->second.pause == Pause::running) return;
  setPause(found->second, Pause::running);
  found->second.slots.clear();
}

void VelocityStop::stop(std::string_view lookupId) {
  const base::Lock lock(mutex_);
  const auto found = grants_.find(lookupId);
  if (found != grants_.end() && found->second.pause == Pause::asking) setPause(found->second, Pause::stopped);
}

bool VelocityStop::isPaused(std::string_view lookupId) const {
  const base::Lock lock(mutex_);
  const auto found = grants_.find(lookupId);
  return found != grants_.end() && found->second.pause != Pause::running;
}

void VelocityStop::open(const std::string& lookupId, const std::string& poolKey, const ProxyLimits& limits) {
  {
    const base::Lock lock(mutex_);
    grants_.try_emplace(lookupId);
  }
  inner_.open(lookupId, poolKey, limits);
}

ProxyReservation VelocityStop::reserve(std::string_view lookupId, Micros amount) {
  if (paused_ > 0) {
    const base::Lock lock(mutex_);
    const auto found = grants_.find(lookupId);
    if (found != grants_.end() && found->second.pause == Pause::asking) return RateLimited{kPausedRetrySeconds};
    if (found != grants_.end() && found->second.pause == Pause::stopped) return OverBudget{};
  }
  return inner_.reserve(lookupId, amount);
}

void VelocityStop::settle(std::string_view lookupId, const ReservationId& id, Micros charged) {
  inner_.settle(lookupId, id, charged);
  const Micros limit = limit_;
  if (limit == kMostMicros || charged <= 0) return;
  const auto second = std::chrono::duration_cast<std::chrono::seconds>(clock_.instant().time_since_epoch()).count();
  Micros sum = 0;
  OnPause told;
  {
    const base::Lock lock(mutex_);
    const auto found = grants_.find(lookupId);
    if (found == grants_.end() || found->second.pause != Pause::running) return;
    auto& slots = found->second.slots;
    slots.resize(kWindow.count());
    Slot& slot = slots[static_cast<std::size_t>(second) % slots.size()];
    if (slot.second != second) slot = {second, 0};
    slot.charged = addSaturating(slot.charged, charged);
    for (const Slot& each : slots) {
      if (each.second > second - kWindow.count()) sum = addSaturating(sum, each.charged);
    }
    if (sum < limit) return;
    setPause(found->second, Pause::asking);
    told = told_;
  }
  if (told) told(lookupId, sum);
}

void VelocityStop::close(std::string_view lookupId) {
  {
    const base::Lock lock(mutex_);
    if (const auto found = grants_.find(lookupId); found != grants_.end()) {
      setPause(found->second, Pause::running);
      grants_.erase(found);
    }
  }
  inner_.close(lookupId);
}

}  // namespace sorvane::proxy
