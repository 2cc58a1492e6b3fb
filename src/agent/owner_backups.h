#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/jobs.h"
#include "agent/owner_restore.h"
#include "base/secret_text.h"
#include "vault/vault.h"

namespace sorvane::agent {

/// A backup to save, as it was asked for.
struct BackupOrder {
  std::string file;
  std::string protection;  ///< "passphrase", "recoveryKey" or "none"
  base::SecretText passphrase;
  bool withRecoveryKey = false;
  bool replaceFile = false;
};

/// OwnerBackups is what the owner's actions need of the work on backups; the application implements it. Documents are
/// JSON (docs/owner-actions.md). Failures are base::Error. Any thread.
class OwnerBackups {
 public:
  virtual ~OwnerBackups() = default;

  /// Throws what can be known to be wrong with the order before anybody is asked.
  virtual void check(const BackupOrder& order) = 0;
  /// Saves the backup; a recovery key is waited for under the ticket. Returns the job's document.
  virtual std::string create(BackupOrder order, const std::string& ticket, const vault::AccessContext& context,
                             const Jobs::Step& step) = 0;
  /// The recovery key of the backup under way, once; nullopt while there is none.
  virtual std::optional<base::SecretText> takeRecoveryKey(const std::string& ticket) = 0;
  /// The recovery key was written down: the file may be saved. Throws when nothing waits for that.
  virtual void confirmRecoveryKey(const std::string& ticket) = 0;

  virtual std::string inspect(const std::string& file) = 0;
  virtual std::string show(BackupToOpen backup, const Jobs::Step& step) = 0;
  /// What a restore would do to the present vault.
  virtual std::string preview(BackupToOpen backup, const Jobs::Step& step) = 0;

  /// Restore is a backup that was opened and is held until the owner has answered.
  class Restore {
   public:
    virtual ~Restore() = default;
    /// What the owner is told before the yes.
    virtual std::vector<std::string> details() const = 0;
    /// Returns the document.
    virtual std::string run(const vault::AccessContext& context) = 0;
  };
  /// Throws unless the file is the one with the digest.
  virtual std::shared_ptr<Restore> prepareRestore(BackupToOpen backup, const std::string& sha256, bool protectKeys) = 0;
  /// Throws when there is nothing to go back to.
  virtual void checkStepBack() = 0;
  virtual void stepBack(const vault::AccessContext& context) = 0;
};

}  // namespace sorvane::agent
