#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace sorvane::vault {

// What the vault says. Each sentence stands here once.
namespace sentence {

inline constexpr std::string_view kKeyDoesNotOpen =
    "sorvane can’t open this vault’s files with the vault key in the Keychain. The key or the files may have been "
    "removed "
    "or replaced. Restore a backup in Settings → Backup.";
inline constexpr std::string_view kFileDamaged = "A vault file is empty or damaged. Restore a backup to recover it.";
inline constexpr std::string_view kRestoredFileMissing =
    "A restored vault file is missing. Restore a backup to recover it.";
inline constexpr std::string_view kRestoredFilesMissing = "Restored vault files are missing";
inline constexpr std::string_view kNewerVersion = "This vault metadata requires a newer Sorvane version";
inline constexpr std::string_view kInvalidJournal = "Invalid reversal journal";
inline constexpr std::string_view kInvalidJournalFiles = "Invalid reversal files";
inline constexpr std::string_view kInvalidCloudCache = "Invalid cloud cache";
inline constexpr std::string_view kInvalidLocation = "Invalid vault location";
inline constexpr std::string_view kActiveVaultChanged = "The active vault changed.";
inline constexpr std::string_view kManifestMissing =
    "active-vault.json is missing, but this vault already holds secrets or environments";

inline constexpr std::string_view kSecretNameEmpty = "secret name cannot be empty";
inline constexpr std::string_view kProjectNameEmpty = "project name cannot be empty";
inline constexpr std::string_view kProjectNameReserved = "This environment name is reserved for a retired cloud grant";
inline constexpr std::string_view kVariableName =
    "Use letters, digits and underscores; start with a letter or underscore.";
inline constexpr std::string_view kPinNotPositive = "Version must be a positive whole number, or blank for current.";
inline constexpr std::string_view kInvalidVersion = "Choose a valid version.";
inline constexpr std::string_view kNegativeGrace = "Choose a nonnegative grace period.";
inline constexpr std::string_view kUnknownSecret = "There is no such secret. Nothing was changed or shared.";
inline constexpr std::string_view kUnknownProject = "There is no such environment. Nothing was changed or shared.";
inline constexpr std::string_view kUnknownVariable =
    "The environment has no variable of that name. Nothing was changed. List its variables and choose one of them.";
inline constexpr std::string_view kNotUtf8 =
    "The text is not valid UTF-8. Nothing was saved. Enter it again without the bytes that are no text.";
inline constexpr std::string_view kNulInValue =
    "The value holds a NUL byte, which no variable can carry. Nothing was saved. Enter it again without that byte.";
inline constexpr std::string_view kControlInName =
    "A name cannot hold control characters. Nothing was saved. Choose another name.";
inline constexpr std::string_view kLogUnreadable = "The audit log could not be read, so usage is unavailable.";

inline constexpr std::string_view kNotVerified =
    "The restored vault did not pass verification. Your current vault is unchanged.";
inline constexpr std::string_view kNoPrevious = "There is no previous vault to restore.";

inline constexpr std::string_view kSelectionStale = "A selected secret no longer exists. Refresh the selection.";

std::string cannotOpen(std::string_view detail);
std::string secretNameTaken(std::string_view name);
std::string projectNameTaken(std::string_view name);
std::string keychainDenied(std::int64_t version, std::string_view secretName);
std::string valueNotFound(std::int64_t version, std::string_view secretName);
std::string valueNotDeleted(std::int64_t version, std::string_view secretName);
std::string orphanNotDeleted(std::string_view detail);
std::string versionPurged(std::int64_t version, std::string_view secretName);
std::string versionIsCurrent(std::int64_t version, std::string_view secretName);
std::string boundSecretGone(std::string_view variable);
std::string boundVersionPurged(std::string_view variable, std::int64_t version, std::string_view secretName);
std::string notAVariableName(std::string_view name);
std::string variableChosenTwice(std::string_view name);
std::string limitedToTargets(std::string_view secretName, std::string_view targets);
std::string variableTaken(std::string_view variable, std::string_view projectName);
/// `detail` is the failure of the file below, without a full stop.
std::string notChanged(std::string_view detail);
std::string notRead(std::string_view detail);
std::string notLogged(std::string_view detail);
std::string notRestored(std::string_view detail);
std::string settingNotRead(std::string_view detail);
std::string settingNotSaved(std::string_view detail);
std::string settingWrongKey(std::string_view name);
std::string settingTooLarge(std::string_view name);
std::string tooShortToProtect(std::string_view secretName);
std::string otherProvidersKey(std::string_view secretName, std::string_view actual, std::string_view wanted);

}  // namespace sentence
}  // namespace sorvane::vault
