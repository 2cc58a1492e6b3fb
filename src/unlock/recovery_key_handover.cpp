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
    heard_ = clock_.instant();
  }
  const base::Instant until = clock_.instant() + kWaits;
  for (;;) {
    {
      base::Lock lock(mutex_);
      if (!isConfirmed_) changed_.wait_for(lock.mutex(), lookEvery);
      if (isConfirmed_) return;
      const base::Instant now = clock_.instant();
      if (now >= until || now - heard_ >= kSilence) throw BackupError(sentence::kExportCancelled);
    }
    if (look) look();
  }
}

std::optional<base::SecretText> RecoveryKeyHandover::take(std::string_view ticket) {
  const base::Lock lock(mutex_);
  if (ticket_.empty() || ticket_ != ticket) return std::nullopt;
  heard_ = clock_.instant();
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
