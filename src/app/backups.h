#pragma once

#include <functional>

#include "agent/owner_backups.h"
#include "unlock/backup_work.h"

namespace sorvane::app {

/// Backups translates between the owner's actions and the work on backups. Any thread.
class Backups final : public agent::OwnerBackups {
 public:
  struct Ports {
    unlock::BackupWork::Ports work;
    /// Told how far a restore is.
    unlock::BackupWork::Progress restoring;
    /// Told that a backup is in place.
    std::function<void()> restored;
  };
  explicit Backups(Ports ports)
      : vault_(ports.work.vault),
        restoring_(std::move(ports.restoring)),
        restored_(std::move(ports.restored)),
        work_(std::move(ports.work)) {}

  void check(const agent::BackupOrder& order) override;
  std::string create(agent::BackupOrder order, const std::string& ticket, const vault::AccessContext& context,
                     const agent::Jobs::Step& step) override;
  std::optional<base::SecretText> takeRecoveryKey(const std::string& ticket) override;
  void confirmRecoveryKey(const std::string& ticket) override;
  std::string inspect(const std::string& file) override;
  std::string show(agent::BackupToOpen backup, const agent::Jobs::Step& step) override;
  std::string preview(agent::BackupToOpen backup, const agent::Jobs::Step& step) override;
  std::shared_ptr<Restore> prepareRestore(agent::BackupToOpen backup, const std::string& sha256,
                                          bool protectKeys) override;
  void checkStepBack() override;
  void stepBack(const vault::AccessContext& context) override;

 private:
  class PreparedRestore;

  vault::Vault& vault_;
  const unlock::BackupWork::Progress restoring_;
  const std::function<void()> restored_;
  unlock::BackupWork work_;
};

}  // namespace sorvane::app
