#pragma once

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/clock.h"
#include "base/mutex.h"
#include "proxy/meter.h"
#include "proxy/text_key.h"

namespace sorvane::proxy {

/// InMemoryProxyMeter keeps the budgets and rates of the live grants. A closed grant is forgotten once nothing of it is
/// in flight, and a pool with the last of its grants.
class InMemoryProxyMeter final : public ProxyMeter {
 public:
  /// Told of a reservation that was settled though it is not held. Called without the lock.
  using OnDoubleSettle = std::function<void(std::string_view lookupId, const ReservationId& id)>;
  explicit InMemoryProxyMeter(const base::Clock& clock, OnDoubleSettle onDoubleSettle = {});

  void open(const std::string& lookupId, const std::string& poolKey, const ProxyLimits& limits) override;
  ProxyReservation reserve(std::string_view lookupId, Micros amount) override;
  void release(std::string_view lookupId, const ReservationId& id) override;
  void settle(std::string_view lookupId, const ReservationId& id, Micros charged) override;
  void exhaust(std::string_view lookupId) override;
  void close(std::string_view lookupId) override;
  std::optional<ProxySpend> spendOf(std::string_view lookupId) const override;
  std::optional<ProxySpend> spendOfPool(std::string_view poolKey) const override;

  /// Grants and pools that are remembered.
  struct Size {
    std::size_t grants = 0, pools = 0;
  };
  Size size() const;

 private:
  struct Grant;
  struct Reservation {
    ReservationId id;
    Micros amount = 0;
    const Grant* grant = nullptr;
  };
  struct Pool {
    std::string key;
    Micros budgetMicros = 0;
    int requestsPerMinute = 0;
    Micros spentMicros = 0;
    std::vector<Reservation> reservations;
    std::int64_t calls = 0;
    bool exhausted = false;
    double tokens = 0;  ///< level of the rate's bucket
    std::optional<base::Instant> lastRefill;
    base::Instant lastCall{};
    std::size_t grants = 0;
  };
  struct Grant {
    Pool* pool = nullptr;
    base::Date expiresAt;
    bool closed = false;
    std::int64_t calls = 0;
    int inFlight = 0;
  };

  Grant* grantOf(std::string_view lookupId) REQUIRES(mutex_);
  ReservationId freshId() REQUIRES(mutex_);
  /// Takes a reservation of this grant out; nullopt when it is not held.
  std::optional<Micros> take(Grant& grant, const ReservationId& id) REQUIRES(mutex_);
  /// Of a closed grant.
  void forgetWhenDone(std::string_view lookupId) REQUIRES(mutex_);
  static ProxySpend spendIn(const Pool& pool);

  // Constant after construction.
  const base::Clock& clock_;
  const OnDoubleSettle onDoubleSettle_;
  // Guarded. A leaf: no callback while it is held.
  mutable base::Mutex mutex_;
  TextMap<Grant> grants_ GUARDED_BY(mutex_);
  TextMap<Pool> pools_ GUARDED_BY(mutex_);
  // Random bytes in stock, so that a reservation costs no system call of its own.
  std::array<ReservationId, 16> ids_ GUARDED_BY(mutex_){};
  std::size_t idsLeft_ GUARDED_BY(mutex_) = 0;
};

}  // namespace sorvane::proxy
