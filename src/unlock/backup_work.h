#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/files.h"
#include "unlock/backup.h"
#include "unlock/backup_changes.h"
#include "unlock/backup_file.h"
#include "unlock/recovery_key_handover.h"
#include "vault/vault.h"

namespace sorvane::unlock {

/// What can be told of a backup file without opening it.
struct BackupInspection {
  bool isEncrypted = false;
  bool hasPassphrase = false;
  bool hasRecoveryKey = false;
  std::string sha256;  ///< lower-case hexadecimal
  std::int64_t bytes = 0;
};

/// A backup that was opened, and the digest of the very bytes that it was opened from.
struct OpenedBackupFile {
  BackupInspection file;
  BackupPayload payload;
};

/// BackupWork carries out what the owner does with backups, one piece of work at a time. Failures are BackupError,
/// CryptoError and what the vault throws; after any of them nothing was saved and nothing restored. Any thread.
class BackupWork {
 public:
  using Progress = vault::Progress;
  struct Ports {
    vault::Vault& vault;
    base::Files& files;
    const base::Clock& clock;
    /// Calls the work while nobody else uses the vault. Throws before it when that cannot be had.
    std::function<void(const std::function<void()>& work)> alone;
    /// Holds the vault, its values and all else of sorvane's; no backup is written into it.
    std::filesystem::path supportFolder;
  };
  explicit BackupWork(Ports ports) : ports_(std::move(ports)), recoveryKeys_(ports_.clock) {}

  struct Order {
    std::filesystem::path file;  ///< absolute
    ExistingFile existing = ExistingFile::refuse;
    BackupChoice choice;
    /// What the recovery key is handed over under.
    std::string ticket;
  };
  /// Throws while another piece of work is under way; one that begins checks it again.
  void requireIdle() { operations_.begin(); }
  /// Throws what can be known to be wrong with an order before anybody is asked about it.
  void check(const Order& order);
  /// Saves a backup of the whole vault. A recovery key is handed over, and written down as the person says, before the
  /// file is saved. Returns the number of secrets.
  std::int64_t create(Order order, const vault::AccessContext& context, const Progress& progress);
  /// Keys that `create` hands over.
  RecoveryKeyHandover& recoveryKeys() { return recoveryKeys_; }

  BackupInspection inspect(const std::filesystem::path& file);
  OpenedBackupFile open(const std::filesystem::path& file, const BackupSecret& secret);
  /// The same, refused unless the file is the one whose digest was shown.
  OpenedBackupFile openShown(const std::filesystem::path& file, const BackupSecret& secret, std::string_view sha256);
  /// What a restore of the backup would do.
  BackupChanges compare(const BackupPayload& payload, const Progress& progress);

  enum class ProviderKeys { leave, protect };
  /// Puts the backup in the vault's place, and protects the provider keys in it where that is wanted. Returns sentences
  /// about what could not be done behind the restore itself.
  std::vector<std::string> restore(const BackupPayload& payload, ProviderKeys keys, const vault::AccessContext& context,
                                   const Progress& progress = {});
  void stepBack(const vault::AccessContext& context);

 private:
  std::vector<std::string> protectKeys(const BackupPayload& payload);

  const Ports ports_;
  BackupOperations operations_;
  RecoveryKeyHandover recoveryKeys_;
};

}  // namespace sorvane::unlock
