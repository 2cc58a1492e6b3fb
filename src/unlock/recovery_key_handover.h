#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "base/mutex.h"
#include "base/secret_text.h"

namespace sorvane::unlock {

/// RecoveryKeyHandover shows a new recovery key once, to the one who holds its ticket, and holds the work up until that
/// one says that it was written down: a backup whose key nobody has is worse than none. Any thread.
class RecoveryKeyHandover {
 public:
  /// How long a key waits for its person, and how long for a sign that somebody still serves that one.
  static constexpr std::chrono::minutes kWaits{10};
  static constexpr std::chrono::seconds kSilence{10};

  explicit RecoveryKeyHandover(const base::Clock& clock) : clock_(clock) {}

  /// Offers the key and waits. `look` is called while it waits and may throw to give up. Throws BackupError when the
  /// time is over, or when nobody asked under the ticket for kSilence. The key is wiped in any case.
  void offer(const std::string& ticket, base::SecretText key, const std::function<void()>& look,
             std::chrono::milliseconds lookEvery = std::chrono::milliseconds(100));
  /// The key, the first time; nullopt when none is offered under the ticket or it was taken.
  std::optional<base::SecretText> take(std::string_view ticket);
  /// Lets the work go on. False when nothing waits under the ticket or its key was never taken.
  bool confirm(std::string_view ticket);

 private:
  const base::Clock& clock_;
  // Guarded. A leaf.
  base::Mutex mutex_;
  base::Condition changed_;
  std::string ticket_ GUARDED_BY(mutex_);  ///< empty while nothing is offered
  std::optional<base::SecretText> key_ GUARDED_BY(mutex_);
  base::Instant heard_ GUARDED_BY(mutex_);  ///< when somebody asked under the ticket
  bool isConfirmed_ GUARDED_BY(mutex_) = false;
};

}  // namespace sorvane::unlock
