#include "proxy/in_memory_meter.h"

#include <algorithm>
#include <cmath>
#include <span>

#include "base/ids.h"

namespace sorvane::proxy {
namespace {

using Minutes = std::chrono::duration<double, std::ratio<60>>;

}  // namespace

InMemoryProxyMeter::InMemoryProxyMeter(const base::Clock& clock, OnDoubleSettle onDoubleSettle)
    : clock_(clock), onDoubleSettle_(std::move(onDoubleSettle)) {}

void InMemoryProxyMeter::open(const std::string& lookupId, const std::string& poolKey, const ProxyLimits& limits) {
  const base::Lock lock(mutex_);
  if (grants_.contains(lookupId)) return;
  const auto [at, fresh] = pools_.try_emplace(poolKey);
  Pool& pool = at->second;
  if (fresh) {
    pool.key = poolKey;
    pool.budgetMicros = limits.budgetMicros;
    pool.requestsPerMinute = limits.requestsPerMinute;
    pool.tokens = limits.requestsPerMinute;
  }
  ++pool.grants;
  Grant& grant = grants_[lookupId];
  grant.pool = &pool;
  grant.expiresAt = limits.expiresAt;
}

InMemoryProxyMeter::Grant* InMemoryProxyMeter::grantOf(std::string_view lookupId) {
  const auto found = grants_.find(lookupId);
  return found == grants_.end() ? nullptr : &found->second;
}

ReservationId InMemoryProxyMeter::freshId() {
  if (idsLeft_ == 0) {
    static_assert(sizeof(ReservationId) == 16 && std::has_unique_object_representations_v<ReservationId>);
    base::fillRandom({reinterpret_cast<std::uint8_t*>(ids_.data()), sizeof ids_});
    idsLeft_ = ids_.size();
  }
  return ids_[--idsLeft_];
}

ProxyReservation InMemoryProxyMeter::reserve(std::string_view lookupId, Micros amount) {
  amount = std::max<Micros>(amount, 0);
  const auto wall = clock_.wall();
  const base::Instant now = clock_.instant();
  const base::Lock lock(mutex_);
  Grant* const grant = grantOf(lookupId);
  if (grant == nullptr || grant->closed || wall >= grant->expiresAt) return Closed{};
  Pool& pool = *grant->pool;
  if (pool.exhausted) return OverBudget{};
  const double rate = pool.requestsPerMinute;
  if (rate < 1) return RateLimited{60};
  if (pool.lastRefill) {
    const double minutes = std::max(Minutes(now - *pool.lastRefill).count(), 0.0);
    pool.tokens = std::min(pool.tokens + minutes * rate, rate);
  }
  pool.lastRefill = now;
  if (pool.tokens < 1) return RateLimited{std::max(static_cast<int>(std::ceil((1 - pool.tokens) * 60 / rate)), 1)};
  Micros committed = addSaturating(pool.spentMicros, amount);
  for (const Reservation& held : pool.reservations) committed = addSaturating(committed, held.amount);
  if (committed > pool.budgetMicros) return OverBudget{};
  const ReservationId id = freshId();
  pool.reservations.push_back({id, amount, grant});
  pool.tokens -= 1;
  pool.lastCall = now;
  ++pool.calls;
  ++grant->calls;
  ++grant->inFlight;
  return Admitted{id};
}

std::optional<Micros> InMemoryProxyMeter::take(Grant& grant, const ReservationId& id) {
  auto& held = grant.pool->reservations;
  const auto found = std::find_if(held.begin(), held.end(), [&](const Reservation& reservation) {
    return reservation.id == id && reservation.grant == &grant;
  });
  if (found == held.end()) return std::nullopt;
  const Micros amount = found->amount;
  *found = held.back();
  held.pop_back();
  --grant.inFlight;
  grant.pool->lastCall = clock_.instant();
  return amount;
}

void InMemoryProxyMeter::release(std::string_view lookupId, const ReservationId& id) {
  const base::Lock lock(mutex_);
  Grant* const grant = grantOf(lookupId);
  if (grant != nullptr && take(*grant, id) && grant->closed) forgetWhenDone(lookupId);
}

void InMemoryProxyMeter::settle(std::string_view lookupId, const ReservationId& id, Micros charged) {
  {
    const base::Lock lock(mutex_);
    Grant* const grant = grantOf(lookupId);
    if (grant != nullptr && take(*grant, id)) {
      Pool& pool = *grant->pool;
      pool.spentMicros = addSaturating(pool.spentMicros, std::max<Micros>(charged, 0));
      if (grant->closed) forgetWhenDone(lookupId);
      return;
    }
  }
  if (onDoubleSettle_) onDoubleSettle_(lookupId, id);
}

void InMemoryProxyMeter::exhaust(std::string_view lookupId) {
  const base::Lock lock(mutex_);
  if (Grant* const grant = grantOf(lookupId)) grant->pool->exhausted = true;
}

void InMemoryProxyMeter::close(std::string_view lookupId) {
  const base::Lock lock(mutex_);
  if (Grant* const grant = grantOf(lookupId)) {
    grant->closed = true;
    forgetWhenDone(lookupId);
  }
}

void InMemoryProxyMeter::forgetWhenDone(std::string_view lookupId) {
  const auto found = grants_.find(lookupId);
  if (found->second.inFlight > 0) return;
  Pool& pool = *found->second.pool;
  grants_.erase(found);
  if (--pool.grants == 0) pools_.erase(pools_.find(pool.key));
}

ProxySpend InMemoryProxyMeter::spendIn(const Pool& pool) {
  ProxySpend spend;
  spend.spentMicros = pool.spentMicros;
  for (const Reservation& held : pool.reservations)
    spend.reservedMicros = addSaturating(spend.reservedMicros, held.amount);
  spend.budgetMicros = pool.budgetMicros;
  spend.calls = pool.calls;
  spend.exhausted = pool.exhausted;
  spend.inFlight = static_cast<int>(pool.reservations.size());
  spend.lastCall = pool.lastCall;
  return spend;
}

std::optional<ProxySpend> InMemoryProxyMeter::spendOf(std::string_view lookupId) const {
  const base::Lock lock(mutex_);
  const auto found = grants_.find(lookupId);
  if (found == grants_.end()) return std::nullopt;
  ProxySpend spend = spendIn(*found->second.pool);
  spend.calls = found->second.calls;
  return spend;
}

std::optional<ProxySpend> InMemoryProxyMeter::spendOfPool(std::string_view poolKey) const {
  const base::Lock lock(mutex_);
  const auto found = pools_.find(poolKey);
  return found == pools_.end() ? std::nullopt : std::optional(spendIn(found->second));
}

InMemoryProxyMeter::Size InMemoryProxyMeter::size() const {
  const base::Lock lock(mutex_);
  return {grants_.size(), pools_.size()};
}

}  // namespace sorvane::proxy
