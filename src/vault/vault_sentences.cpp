#include "vault/vault_sentences.h"

#include <initializer_list>

namespace sorvane::vault::sentence {
namespace {

std::string joined(std::initializer_list<std::string_view> parts) {
  std::string text;
  for (const std::string_view part : parts) text += part;
  return text;
}

}  // namespace

std::string notRestored(std::string_view detail) {
  return joined({"The vault could not be replaced: ", detail, ". Your current vault is unchanged. Try again."});
}
std::string cannotOpen(std::string_view detail) {
  return joined({"The vault could not be opened. Restore a backup in Settings → Backup. (", detail, ")"});
}
std::string secretNameTaken(std::string_view name) {
  return joined({"a secret named '", name, "' already exists"});
}
std::string projectNameTaken(std::string_view name) {
  return joined({"a project named '", name, "' already exists"});
}
std::string keychainDenied(std::int64_t version, std::string_view secretName) {
  return joined({"keychain access denied for v", std::to_string(version), " of '", secretName,
                 "'; unlock the keychain and retry"});
}
std::string valueNotFound(std::int64_t version, std::string_view secretName) {
  return joined({"value for v", std::to_string(version), " of '", secretName, "' not found in keychain"});
}
std::string valueNotDeleted(std::int64_t version, std::string_view secretName) {
  return joined({"failed to delete keychain value for v", std::to_string(version), " of '", secretName,
                 "'; metadata left intact"});
}
std::string orphanNotDeleted(std::string_view detail) {
  return joined({"A value that no secret uses could not be removed (", detail,
                 "). What was purged before stays purged. Run the collection again."});
}
std::string versionPurged(std::int64_t version, std::string_view secretName) {
  return joined({"Version ", std::to_string(version), " of '", secretName,
                 "' was purged, so its value is gone. Nothing was changed or shared. Choose another version."});
}
std::string versionIsCurrent(std::int64_t version, std::string_view secretName) {
  return joined({"Version ", std::to_string(version), " of '", secretName,
                 "' is the current one already. Nothing was changed. Choose an earlier version."});
}
std::string boundSecretGone(std::string_view variable) {
  return joined({variable, ": bound secret no longer exists"});
}
std::string boundVersionPurged(std::string_view variable, std::int64_t version, std::string_view secretName) {
  return joined({variable, ": version ", std::to_string(version), " of '", secretName, "' was purged"});
}
std::string notAVariableName(std::string_view name) {
  return joined({"‘", name, "’ is not a valid environment variable name."});
}
std::string variableChosenTwice(std::string_view name) {
  return joined({"More than one secret maps to ‘", name, "’. Choose distinct names before exporting."});
}
std::string limitedToTargets(std::string_view secretName, std::string_view targets) {
  return joined({secretName, " is limited to ", targets, ". Export it from an environment with that target."});
}
std::string variableTaken(std::string_view variable, std::string_view projectName) {
  return joined({"The environment '", projectName, "' already has a variable named ", variable,
                 ". Nothing was changed. Rename or unbind that variable first."});
}
std::string notChanged(std::string_view detail) {
  return joined({"The change could not be saved (", detail,
                 "). Nothing was changed. Check the vault’s folder and the room on its disk, then try again."});
}
std::string notRead(std::string_view detail) {
  return joined({"The vault’s files could not be read (", detail,
                 "). Nothing was shared. Check the vault’s folder, then try again."});
}
std::string notLogged(std::string_view detail) {
  return joined({"The access log could not be written (", detail,
                 "). Nothing was shared. Check the vault’s folder and the room on its disk, then try again."});
}
std::string settingNotRead(std::string_view detail) {
  return joined({"A sealed setting could not be read (", detail, "). Nothing was changed or shared. Try again."});
}
std::string settingNotSaved(std::string_view detail) {
  return joined({"A sealed setting could not be saved (", detail, "). Nothing was changed. Try again."});
}
std::string settingWrongKey(std::string_view name) {
  return joined(
      {"The sealed setting \"", name,
       "\" was not made with this vault’s key, so sorvane does not trust it. Nothing was shared. Set it again."});
}
std::string settingTooLarge(std::string_view name) {
  return joined(
      {"The sealed setting \"", name, "\" would be too large to keep. Nothing was changed. Make it smaller."});
}
std::string tooShortToProtect(std::string_view secretName) {
  return "'" + std::string(secretName) +
         "' holds fewer than 16 characters, so it is no provider key. Nothing was changed. Check its value.";
}

std::string otherProvidersKey(std::string_view secretName, std::string_view actual, std::string_view wanted) {
  return "'" + std::string(secretName) + "' looks like a key of " + std::string(actual) + ", not of " +
         std::string(wanted) + ". Nothing was changed. Choose its own provider.";
}

}  // namespace sorvane::vault::sentence
