#pragma once

#include <filesystem>

#include "agent/owner_restore.h"
#include "app/stores.h"
#include "app/vault_lock.h"
#include "base/clock.h"
#include "base/files.h"
#include "unlock/backup.h"
#include "unlock/vault_switch.h"

namespace sorvane::app {

/// LockedRestore builds a vault from a backup beside the one that nothing opens, and puts it in its place. Any thread;
/// one piece of work at a time.
class LockedRestore final : public agent::OwnerRestore {
 public:
  /// Everything here outlives it.
  struct Ports {
    base::Files& files;
    const base::Clock& clock;
    Stores& stores;
    VaultLock& lock;
  };
  explicit LockedRestore(Ports ports) : ports_(ports) {}

  Preview preview(agent::BackupToOpen backup) override;
  agent::LockOutcome restore(Order order, const agent::LockCaller& caller) override;

 private:
  /// The folder is filled with a vault, a store and its settings. Returns sentences about what could not be done beside
  /// that.
  std::vector<std::string> build(const std::filesystem::path& stage, const unlock::BackupPayload& payload,
                                 bool protectKeys);

  const Ports ports_;
  unlock::BackupOperations operations_;
};

}  // namespace sorvane::app
