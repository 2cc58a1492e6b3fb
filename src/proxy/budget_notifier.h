#pragma once

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "base/mutex.h"
#include "proxy/meter.h"
#include "proxy/text_key.h"

namespace sorvane::proxy {

/// BudgetNotifier tells the owner, once for each pool and case, that a budget is nearly used, used up, or stopped. Any
/// thread.
class BudgetNotifier {
 public:
  struct Ports {
    /// Shows a notice; must not block. Called without a lock.
    std::function<void(const std::string& title, const std::string& body)> post;
    /// The grant's client and environment as a person knows them; "" when the grant is not known.
    std::function<std::string(std::string_view lookupId)> describe;
  };
  explicit BudgetNotifier(Ports ports) : ports_(std::move(ports)) {}

  /// Whether there is anything to say about such a spend; needs no lock.
  static bool worthSaying(const ProxySpend& spend);
  void note(std::string_view lookupId, const std::string& poolKey, const ProxySpend& spend);
  /// The pool is gone; a later one of the same name begins anew.
  void forget(const std::string& poolKey);

 private:
  enum class Notice { nearlyUsed, usedUp, stopped };

  // Constant after construction.
  const Ports ports_;
  // Guarded. A leaf.
  base::Mutex mutex_;
  std::set<std::pair<std::string, Notice>> said_ GUARDED_BY(mutex_);
};

/// NotifyingProxyMeter hands what each settled call made of its pool to a BudgetNotifier; all else is the inner
/// meter's.
class NotifyingProxyMeter final : public ProxyMeter {
 public:
  NotifyingProxyMeter(ProxyMeter& inner, BudgetNotifier& notifier) : inner_(inner), notifier_(notifier) {}

  void open(const std::string& lookupId, const std::string& poolKey, const ProxyLimits& limits) override;
  ProxyReservation reserve(std::string_view lookupId, Micros amount) override {
    return inner_.reserve(lookupId, amount);
  }
  void release(std::string_view lookupId, const ReservationId& id) override;
  void settle(std::string_view lookupId, const ReservationId& id, Micros charged) override;
  void exhaust(std::string_view lookupId) override;
  void close(std::string_view lookupId) override;
  std::optional<ProxySpend> spendOf(std::string_view lookupId) const override { return inner_.spendOf(lookupId); }
  std::optional<ProxySpend> spendOfPool(std::string_view poolKey) const override { return inner_.spendOfPool(poolKey); }

 private:
  std::string poolKeyOf(std::string_view lookupId) const;
  void tell(std::string_view lookupId);
  /// Drops what is kept about a grant that the inner meter forgot.
  void forgetWithInner(std::string_view lookupId);

  // Constant after construction.
  ProxyMeter& inner_;
  BudgetNotifier& notifier_;
  // Guarded. A leaf.
  mutable base::Mutex mutex_;
  TextMap<std::string> poolKeys_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::proxy
