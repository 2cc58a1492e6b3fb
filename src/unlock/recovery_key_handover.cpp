#include "unlock/recovery_key_handover.h"

#include "unlock/backup_error.h"

namespace sorvane::unlock {

void RecoveryKeyHandover::offer(const std::string& ticket, base::SecretText key, const std::function<void()>& look,
                                std::chrono::milliseconds lookEvery) {
  // Whichever way this ends, nothing of the key is left here.
  struct Ending {
    RecoveryKeyHandover& desk;
    ~Ending() {
      const base::Lock lock(desk.mutex_);
      desk.ticket_.clear();
      desk.key_.reset();
    }
  } const ending{*this};
  {
    const base::Lock lock(mutex_);
    ticket_ = ticket;
    key_ = std::move(key);
    isConfirmed_ = false;
  }
  const auto until = std::chrono::steady_clock::now() + kWaits;
  for (;;) {
    {
      base::Lock lock(mutex_);
      if (!isConfirmed_) changed_.wait_for(lock.mutex(), lookEvery);
      if (isConfirmed_) return;
    }
    if (look) look();
    if (std::chrono::steady_clock::now() >= until) throw BackupError(sentence::kExportCancelled);
  }
}

std::optional<base::SecretText> RecoveryKeyHandover::take(std::string_view ticket) {
  const base::Lock lock(mutex_);
  if (ticket_.empty() || ticket_ != ticket) return std::nullopt;
  return std::exchange(key_, std::nullopt);
}

bool RecoveryKeyHandover::confirm(std::string_view ticket) {
  const base::Lock lock(mutex_);
  if (ticket_.empty() || ticket_ != ticket || key_) return false;
  isConfirmed_ = true;
  changed_.notify_all();
  return true;
}

}  // namespace sorvane::unlock
