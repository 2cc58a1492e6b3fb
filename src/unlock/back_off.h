#pragma once

#include <chrono>
#include <optional>

#include "base/clock.h"
#include "unlock/unlock_configuration.h"

namespace sorvane::unlock {

/// How long after the last of so many wrong passphrases the next one is taken.
std::chrono::seconds delayAfter(std::int64_t failedAttempts);

/// BackOff makes those who try passphrases wait. The wait goes by the stored failure and, while the process lives, by
/// the monotonic clock as well: setting the wall clock does not shorten it. A failure that the wall clock puts in the
/// future counts as one of the moment it was first seen. Not synchronised.
class BackOff {
 public:
  explicit BackOff(const base::Clock& clock) : clock_(clock) {}

  /// When the next try is taken, or nullopt: now.
  std::optional<base::Date> waitsUntil(const UnlockConfiguration& configuration);
  /// Counts a wrong passphrase in the configuration.
  void noteFailure(UnlockConfiguration& configuration);
  /// Forgets them all.
  void noteSuccess(UnlockConfiguration& configuration);

 private:
  const base::Clock& clock_;
  std::optional<base::Instant> since_;  ///< the last failure as this process saw it
};

}  // namespace sorvane::unlock
