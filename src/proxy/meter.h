#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "base/clock.h"
#include "proxy/limits.h"

namespace sorvane::proxy {

/// A reservation's id. Random, so that nothing can be settled by guessing.
struct ReservationId {
  std::uint64_t high = 0, low = 0;
  bool operator==(const ReservationId&) const = default;
  auto operator<=>(const ReservationId&) const = default;
};

/// ProxyReservation is the result of admission.
struct Admitted {
  ReservationId id;
};
struct RateLimited {
  int retryAfterSeconds = 1;
};
struct OverBudget {};
struct Closed {};
using ProxyReservation = std::variant<Admitted, RateLimited, OverBudget, Closed>;

/// What a grant, or the pool that grants share, has spent.
struct ProxySpend {
  Micros spentMicros = 0;
  Micros reservedMicros = 0;
  Micros budgetMicros = 0;
  std::int64_t calls = 0;
  bool exhausted = false;    ///< stopped because a provider reported more than was reserved
  int inFlight = 0;          ///< reservations that are held
  base::Instant lastCall{};  ///< when a call was last admitted, released or settled
};

/// ProxyMeter decides whether a call may be sent and keeps what was spent. Any thread; never blocks on anything but a
/// short lock. For every `Admitted`, exactly one of `release` and `settle` is to follow.
class ProxyMeter {
 public:
  virtual ~ProxyMeter() = default;
  /// Grants with the same pool key share one budget and one rate, those of the first.
  virtual void open(const std::string& lookupId, const std::string& poolKey, const ProxyLimits& limits) = 0;
  /// Holds `amount` for one call, or says why not. Expiry goes by the wall clock, the rate by the monotonic one.
  virtual ProxyReservation reserve(std::string_view lookupId, Micros amount) = 0;
  /// The call was not sent: nothing is charged.
  virtual void release(std::string_view lookupId, const ReservationId& id) = 0;
  virtual void settle(std::string_view lookupId, const ReservationId& id, Micros charged) = 0;
  /// A provider reported more use than was reserved: every later call of the pool is over budget.
  virtual void exhaust(std::string_view lookupId) = 0;
  /// Later calls are `Closed`; what is in flight stays reserved until it settles.
  virtual void close(std::string_view lookupId) = 0;
  /// nullopt when the meter does not know the grant (any more).
  virtual std::optional<ProxySpend> spendOf(std::string_view lookupId) const = 0;
  virtual std::optional<ProxySpend> spendOfPool(std::string_view poolKey) const = 0;
};

}  // namespace sorvane::proxy
