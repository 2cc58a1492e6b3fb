#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "agent/owner_lock.h"
#include "base/secret_text.h"

namespace sorvane::agent {

/// A backup file and what opens it: one of the two, or neither.
struct BackupToOpen {
  std::string file;
  std::optional<base::SecretText> passphrase, recoveryKey;
};

/// What is in a backup that was opened.
struct OpenedBackupCounts {
  std::string exportedAt;
  std::int64_t secrets = 0, environments = 0, versions = 0, values = 0, events = 0;
  /// Keys of model providers.
  std::int64_t providerKeys = 0;
};

/// What may be told of a backup to any program of the user: no value and no name.
struct BackupCounts {
  std::string sha256;  ///< of the file, lower-case hexadecimal
  std::int64_t bytes = 0;
  bool isEncrypted = false, hasPassphrase = false, hasRecoveryKey = false;
  std::optional<OpenedBackupCounts> opened;
};

/// OwnerRestore puts a backup in the place of a vault that nothing opens: its passphrase or its key is lost. Where it
/// could be unlocked, or its settings reset, that is refused with the sentence that leads there. Each call blocks until
/// its answer is there; any thread. Failures are base::Error.
class OwnerRestore {
 public:
  virtual ~OwnerRestore() = default;
  struct Preview {
    /// Its sentence asks for what opens the file, or says what a restore would do.
    LockOutcome outcome;
    std::optional<BackupCounts> backup;
  };
  /// An encrypted file that nothing was given for is not opened.
  virtual Preview preview(BackupToOpen backup) = 0;

  struct Order {
    BackupToOpen backup;
    std::string sha256;  ///< of the file that was shown
    bool protectKeys = false;
  };
  /// Sets the vault and its store aside, whole, and opens a new one from the backup. The owner is asked first.
  virtual LockOutcome restore(Order order, const LockCaller& caller) = 0;
};

}  // namespace sorvane::agent
