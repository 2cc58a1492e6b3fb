#include "unlock/backup_error.h"

#include "base/unicode.h"

namespace sorvane::unlock {
namespace {

std::string textOf(CryptoError::Case kind) {
  using Case = CryptoError::Case;
  switch (kind) {
    case Case::sealFailed:
      return "encryption failed";
    case Case::badRecoveryKey:
      return "that doesn't look like a valid recovery key";
    case Case::wrongSecret:
      return "wrong passphrase or recovery key";
    case Case::malformedBackup:
      return "the backup file is corrupt or not an sorvane backup";
    case Case::missingDataKey:
      return "the vault's metadata key is missing; restore from a backup";
    case Case::newerBackupVersion:
      return "this backup was made by a newer version of sorvane; update sorvane to open it";
    case Case::backupVaultMismatch:
      return "this backup belongs to a different vault or is not the expected backup";
    case Case::untrustedBackup:
      return "this backup is not signed by your sorvane account, so it may have been altered";
  }
  return {};
}

}  // namespace

CryptoError::CryptoError(Case kind) : Error(textOf(kind)), kind_(kind) {}

CryptoError CryptoError::badKey(std::optional<int> group) {
  std::string sentence(textOf(Case::badRecoveryKey));
  if (group) sentence += "; its group " + std::to_string(*group) + " has a wrong length";
  return {Case::badRecoveryKey, sentence};
}

namespace sentence {

std::string_view neededToOpen(bool passphrase, bool recoveryKey) {
  if (passphrase && recoveryKey) return kNeedsEither;
  return passphrase ? kNeedsPassphrase : kNeedsRecoveryKey;
}

std::string valueUnreadable(std::string_view secretName) {
  return "Backup stopped: ‘" + base::escapedForDisplay(secretName) +
         "’ could not be read. Unlock the Keychain and retry. No incomplete backup was saved.";
}

std::string notTakenBack(std::string_view file, std::string_view old) {
  std::string text =
      "The backup could not be saved for certain, and what was written could not be taken away again. Do not rely on " +
      base::escapedForDisplay(file) + ": delete it and save a backup in another folder.";
  if (!old.empty()) text += " The file that was there before is now " + base::escapedForDisplay(old) + ".";
  return text;
}

std::string variableNotAccepted(std::string_view name, std::string_view environment) {
  return "This backup has a variable name sorvane does not accept, " + base::escapedForDisplay(name) + ", in " +
         base::escapedForDisplay(environment) + ". Names use letters, digits and underscores. Nothing was restored.";
}

std::string nameNotAccepted(std::string_view name) {
  constexpr std::size_t kShownBytes = 60;
  const std::string_view shown = base::prefixOfWholeCharacters(name, kShownBytes);
  return "This backup has a name sorvane does not accept, ‘" + base::escapedForDisplay(shown) +
         (shown.size() < name.size() ? "…" : "") +
         "’. Names are not empty, hold no control characters and are at most 4,096 bytes long. Your vault is "
         "unchanged.";
}

std::string fileNotRead(std::string_view detail) {
  return "The backup file could not be read: " + std::string(detail) + ". Your vault is unchanged.";
}

}  // namespace sentence
}  // namespace sorvane::unlock
