#include "unlock/back_off.h"

#include <algorithm>
#include <array>
#include <limits>

namespace sorvane::unlock {

using std::chrono::nanoseconds;
using std::chrono::seconds;

seconds delayAfter(std::int64_t failedAttempts) {
  constexpr std::array<std::int64_t, 7> kFirst{0, 0, 0, 5, 15, 30, 60};
  constexpr std::int64_t kBase = 300, kCap = 900, kLastDoubling = 15;
  if (failedAttempts <= 0) return seconds(0);
  if (failedAttempts < std::int64_t{kFirst.size()}) return seconds(kFirst[static_cast<std::size_t>(failedAttempts)]);
  const std::int64_t doublings = std::min(failedAttempts, kLastDoubling) - std::int64_t{kFirst.size()};
  return seconds(std::min(kBase << doublings, kCap));
}

std::optional<base::Date> BackOff::waitsUntil(const UnlockConfiguration& configuration) {
  const nanoseconds delay = delayAfter(configuration.failedAttempts);
  if (!configuration.lastFailure || delay == nanoseconds::zero()) return std::nullopt;
  const auto now = clock_.wall();
  const base::Instant instant = clock_.instant();
  nanoseconds remaining{};
  if (*configuration.lastFailure <= now) {
    remaining = *configuration.lastFailure + delay - now;
  } else if (!since_) {
    since_ = instant;
  }
  if (since_) remaining = std::max(remaining, nanoseconds(*since_ + delay - instant));
  if (remaining <= nanoseconds::zero()) return std::nullopt;
  // Dates are whole seconds; the rounding must not make the wait longer than the delay.
  return std::min(std::chrono::ceil<seconds>(now + std::chrono::ceil<std::chrono::system_clock::duration>(remaining)),
                  std::chrono::floor<seconds>(now) + std::chrono::duration_cast<seconds>(delay));
}

void BackOff::noteFailure(UnlockConfiguration& configuration) {
  if (configuration.failedAttempts < std::numeric_limits<std::int64_t>::max()) ++configuration.failedAttempts;
  configuration.lastFailure = clock_.now();
  since_ = clock_.instant();
}

void BackOff::noteSuccess(UnlockConfiguration& configuration) {
  configuration.failedAttempts = 0;
  configuration.lastFailure.reset();
  since_.reset();
}

}  // namespace sorvane::unlock
