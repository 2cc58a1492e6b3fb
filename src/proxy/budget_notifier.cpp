#include "proxy/budget_notifier.h"

#include <algorithm>

namespace sorvane::proxy {
namespace {

/// spent * 5 >= budget * 4, without passing the largest number.
bool isNearlyUsed(const ProxySpend& spend) {
  return spend.spentMicros >= spend.budgetMicros - spend.budgetMicros / 5;
}

}  // namespace

bool BudgetNotifier::worthSaying(const ProxySpend& spend) {
  return spend.exhausted || (spend.budgetMicros >= 1 && isNearlyUsed(spend));
}

void BudgetNotifier::note(std::string_view lookupId, const std::string& poolKey, const ProxySpend& spend) {
  const bool budgeted = spend.budgetMicros >= 1;
  bool nearly = budgeted && isNearlyUsed(spend), up = budgeted && spend.spentMicros >= spend.budgetMicros;
  bool stopped = spend.exhausted;
  {
    const base::Lock lock(mutex_);
    nearly = nearly && said_.emplace(poolKey, Notice::nearlyUsed).second;
    up = up && said_.emplace(poolKey, Notice::usedUp).second;
    stopped = stopped && said_.emplace(poolKey, Notice::stopped).second;
  }
  if (!nearly && !up && !stopped) return;
  std::string who = ports_.describe ? ports_.describe(lookupId) : "";
  if (who.empty()) who = "An agent";
  const std::string budget = dollarsOf(centsOf(spend.budgetMicros));
  if (nearly)
    ports_.post("sorvane · agent budget at 80%",
                who + " has used 80% of its " + budget + " budget for calls through sorvane.");
  if (up) {
    ports_.post("sorvane · agent budget used up",
                who + " has used its " + budget + " budget for calls through sorvane. New calls are refused.");
  }
  if (stopped) {
    ports_.post("sorvane · agent calls stopped",
                who +
                    ": a provider reported more use than sorvane allowed for, so sorvane stopped these calls. Start a "
                    "new session to continue.");
  }
}

void BudgetNotifier::forget(const std::string& poolKey) {
  const base::Lock lock(mutex_);
  for (const Notice notice : {Notice::nearlyUsed, Notice::usedUp, Notice::stopped}) said_.erase({poolKey, notice});
}

void NotifyingProxyMeter::open(const std::string& lookupId, const std::string& poolKey, const ProxyLimits& limits) {
  inner_.open(lookupId, poolKey, limits);
  const base::Lock lock(mutex_);
  poolKeys_.emplace(lookupId, poolKey);
}

void NotifyingProxyMeter::release(std::string_view lookupId, const ReservationId& id) {
  inner_.release(lookupId, id);
  if (!inner_.spendOf(lookupId)) forgetWithInner(lookupId);
}

void NotifyingProxyMeter::settle(std::string_view lookupId, const ReservationId& id, Micros charged) {
  const auto before = inner_.spendOf(lookupId);
  inner_.settle(lookupId, id, charged);
  if (!before || inner_.spendOf(lookupId)) return tell(lookupId);
  // The last call of a grant that ended: the meter forgot it with this, and the pool with the last of its grants.
  const std::string key = poolKeyOf(lookupId);
  auto last = inner_.spendOfPool(key);
  if (!last) {
    last = before;
    last->spentMicros = addSaturating(last->spentMicros, std::max<Micros>(charged, 0));
  }
  if (!key.empty() && BudgetNotifier::worthSaying(*last)) notifier_.note(lookupId, key, *last);
  forgetWithInner(lookupId);
}

void NotifyingProxyMeter::exhaust(std::string_view lookupId) {
  inner_.exhaust(lookupId);
  tell(lookupId);
}

void NotifyingProxyMeter::close(std::string_view lookupId) {
  inner_.close(lookupId);
  if (!inner_.spendOf(lookupId)) forgetWithInner(lookupId);
}

void NotifyingProxyMeter::tell(std::string_view lookupId) {
  const auto spend = inner_.spendOf(lookupId);
  if (!spend) return forgetWithInner(lookupId);
  if (!BudgetNotifier::worthSaying(*spend)) return;
  if (const std::string key = poolKeyOf(lookupId); !key.empty()) notifier_.note(lookupId, key, *spend);
}

std::string NotifyingProxyMeter::poolKeyOf(std::string_view lookupId) const {
  const base::Lock lock(mutex_);
  const auto found = poolKeys_.find(lookupId);
  return found == poolKeys_.end() ? "" : found->second;
}

void NotifyingProxyMeter::forgetWithInner(std::string_view lookupId) {
  std::string key;
  {
    const base::Lock lock(mutex_);
    const auto found = poolKeys_.find(lookupId);
    if (found == poolKeys_.end()) return;
    key = std::move(found->second);
    poolKeys_.erase(found);
  }
  if (!inner_.spendOfPool(key)) notifier_.forget(key);
}

}  // namespace sorvane::proxy
