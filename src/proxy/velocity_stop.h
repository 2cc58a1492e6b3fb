#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "base/mutex.h"
#include "proxy/meter.h"
#include "proxy/text_key.h"

namespace sorvane::proxy {

/// What a call of a paused grant is told: clients wait this long and try again, so that the agent's work goes on by
/// itself after the owner's yes. The official clients wait at most 60 seconds.
inline constexpr int kPausedRetrySeconds = 15;

/// VelocityStop pauses a grant whose charges reach the owner's limit within a minute, and asks what to do with it. The
/// outermost meter. Any thread.
///
///   running --charges reach the limit--> asking --yes--> running, with an empty minute
///                                            asking --no--> stopped --resume--> running
///   While asking, calls are RateLimited; while stopped, OverBudget.
class VelocityStop final : public ProxyMeter {
 public:
  static constexpr std::chrono::seconds kWindow{60};
  /// Told once for each pause, in the thread that settled; must not block. Called without the lock.
  using OnPause = std::function<void(std::string_view lookupId, Micros chargedInWindow)>;

  VelocityStop(ProxyMeter& inner, const base::Clock& clock) : inner_(inner), clock_(clock) {}

  /// Set by the broker. nullopt: no limit; grants that are paused stay so until they are resumed.
  void setLimit(std::optional<std::int64_t> centsPerMinute);
  void onPause(OnPause told);
  /// The owner's yes, and no.
  void resume(std::string_view lookupId);
  void stop(std::string_view lookupId);
  bool isPaused(std::string_view lookupId) const;

  void open(const std::string& lookupId, const std::string& poolKey, const ProxyLimits& limits) override;
  ProxyReservation reserve(std::string_view lookupId, Micros amount) override;
  void release(std::string_view lookupId, const ReservationId& id) override { inner_.release(lookupId, id); }
  void settle(std::string_view lookupId, const ReservationId& id, Micros charged) override;
  void exhaust(std::string_view lookupId) override { inner_.exhaust(lookupId); }
  void close(std::string_view lookupId) override;
  std::optional<ProxySpend> spendOf(std::string_view lookupId) const override { return inner_.spendOf(lookupId); }
  std::optional<ProxySpend> spendOfPool(std::string_view poolKey) const override { return inner_.spendOfPool(poolKey); }

 private:
  enum class Pause { running, asking, stopped };
  struct Slot {
    std::int64_t second = -1;
    Micros charged = 0;
  };
  struct Grant {
    Pause pause = Pause::running;
    std::vector<Slot> slots;  ///< one for each second of the window, by the second modulo 60; none before a charge
  };
  void setPause(Grant& grant, Pause pause) REQUIRES(mutex_);

  // Constant after construction.
  ProxyMeter& inner_;
  const base::Clock& clock_;
  // Own synchronisation. Without a limit and a pause, calls pass without the lock.
  std::atomic<Micros> limit_ = kMostMicros;
  std::atomic<int> paused_ = 0;
  // Guarded. A leaf: no callback while it is held.
  mutable base::Mutex mutex_;
  TextMap<Grant> grants_ GUARDED_BY(mutex_);
  OnPause told_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::proxy
