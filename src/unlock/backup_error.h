#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"

namespace sorvane::unlock {

/// CryptoError is why a backup could not be sealed or opened.
class CryptoError : public base::Error {
 public:
  enum class Case {
    sealFailed,
    badRecoveryKey,
    wrongSecret,
    malformedBackup,
    missingDataKey,
    newerBackupVersion,
    backupVaultMismatch,
    untrustedBackup
  };
  explicit CryptoError(Case kind);
  /// badRecoveryKey; `group` is the number of the one that looks wrong, where that can be told.
  static CryptoError badKey(std::optional<int> group);
  Case kind() const { return kind_; }

 private:
  CryptoError(Case kind, const std::string& sentence) : Error(sentence), kind_(kind) {}
  Case kind_;
};

/// BackupError is every other refusal of the work on backups.
class BackupError : public base::Error {
 public:
  using Error::Error;
  explicit BackupError(std::string_view sentence) : Error(std::string(sentence)) {}
  explicit BackupError(const char* sentence) : Error(sentence) {}
};

// What the work on backups says. Each sentence stands here once.
namespace sentence {

inline constexpr std::string_view kBackupInProgress = "Another backup operation is in progress.";
inline constexpr std::string_view kHistoryUnreadable =
    "Backup stopped because the access history contains an unreadable entry.";
inline constexpr std::string_view kPlainWouldExpose =
    "This vault has key versions limited to deployment targets, and a backup without encryption would expose them to "
    "anyone who can read the file. Choose a passphrase or recovery key backup.";
inline constexpr std::string_view kPassphraseEmpty = "Enter a backup passphrase.";
inline constexpr std::string_view kPassphraseShort = "Use a backup passphrase of at least 12 characters.";
inline constexpr std::string_view kChooseProtection = "Choose passphrase, recoveryKey, or none.";
inline constexpr std::string_view kRecoveryKeyOnce =
    "Keep this key separately from the backup. sorvane won't save a copy of it.";
inline constexpr std::string_view kVaultTooLarge = "This vault exceeds the 256 MB backup limit.";
inline constexpr std::string_view kNotVerified = "The backup did not pass verification.";
inline constexpr std::string_view kSavedNotVerified = "The saved file did not pass verification.";
inline constexpr std::string_view kInsideVault = "Choose a location outside sorvane’s working vault folder.";
inline constexpr std::string_view kExportCancelled = "Export cancelled. No backup was saved.";
inline constexpr std::string_view kNotSaved = "No backup was saved. Pick another folder and try again.";
inline constexpr std::string_view kFileTooLarge = "Backup files larger than 256 MB are not supported.";
inline constexpr std::string_view kNotABackup = "Check that this is an sorvane backup file.";
inline constexpr std::string_view kHasNoPassphrase = "This backup has no passphrase.";
inline constexpr std::string_view kHasNoRecoveryKey = "This backup has no recovery key.";
inline constexpr std::string_view kOneMethod = "Use one unlock method at a time.";
inline constexpr std::string_view kNeedsPassphrase = "This backup needs its passphrase.";
inline constexpr std::string_view kNeedsRecoveryKey = "This backup needs its recovery key.";
inline constexpr std::string_view kNeedsEither = "This backup is encrypted. Enter its passphrase or recovery key.";
inline constexpr std::string_view kNeedsAccount = "This backup can only be opened with your sorvane account.";
inline constexpr std::string_view kReplaceWarning =
    "The backup will replace the secrets and environments currently on this Mac. The previous vault stays on this Mac "
    "so you can undo the restore.";
inline constexpr std::string_view kCloudSecretsStay =
    "Secrets that live in the cloud are not restored from a backup. The cloud copy is the current one.";
inline constexpr std::string_view kFileExists =
    "There is already a file of that name. No backup was saved. Choose another name, or say that the file is to be "
    "replaced.";
inline constexpr std::string_view kFileChanged =
    "The backup file changed while it was read. Your vault is unchanged. Try again when nothing writes to it.";
inline constexpr std::string_view kNotTheFileShown =
    "The backup file is not the one that was shown. Nothing was restored. Look at it again.";
inline constexpr std::string_view kStillRunning =
    "Requests are still running, so nothing was restored and your current vault is unchanged. Task sessions, commands "
    "and questions to you were ended already. Try again when the requests have ended.";
inline constexpr std::string_view kNotServed =
    "sorvane is just closing or opening its agent socket, so nothing was restored and your current vault is unchanged. "
    "Try again.";
inline constexpr std::string_view kVaultChanged =
    "The vault changed while you were asked, so that other secrets or environments would be lost than you were shown. "
    "Nothing was restored. Look at the preview again.";
inline constexpr std::string_view kFileMissing =
    "There is no backup file of that name. Your vault is unchanged. Look at the name and the folder.";

/// The prompt for what opens an encrypted backup.
std::string_view neededToOpen(bool passphrase, bool recoveryKey);

/// Of a new file that could be neither trusted nor taken away; `old` is where the one before it is now, or empty.
std::string notTakenBack(std::string_view file, std::string_view old);
std::string valueUnreadable(std::string_view secretName);
/// Names are written escaped where they hold what a terminal would act on.
std::string variableNotAccepted(std::string_view name, std::string_view environment);
/// Of a secret, an environment or a variable; as much of it as a line holds is shown.
std::string nameNotAccepted(std::string_view name);
/// `detail` is the failure of the file below, without a full stop.
std::string fileNotRead(std::string_view detail);

}  // namespace sentence
}  // namespace sorvane::unlock
