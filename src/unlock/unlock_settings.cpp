#include "unlock/unlock_settings.h"

namespace sorvane::unlock {
namespace {

bool isMendedByReset(const UnlockError& error) {
  using Case = UnlockError::Case;
  return error.kind() == Case::settingsMissing || error.kind() == Case::settingsDamaged ||
         error.kind() == Case::vaultKeyMismatch;
}

}  // namespace

void UnlockSettings::load() {
  loadFailure_.clear();
  resetCause_.reset();
  try {
    configuration_ = store_.load();
    unsaved_ = false;
  } catch (const UnlockError& error) {
    configuration_ = {};
    loadFailure_ = error.sentence();
    if (isMendedByReset(error)) resetCause_ = error;
  }
}

std::optional<UnlockError> UnlockSettings::change(const UnlockConfiguration& configuration) {
  configuration_ = configuration;
  unsaved_ = true;
  return saveAgain();
}

std::optional<UnlockError> UnlockSettings::saveAgain() {
  if (!unsaved_) return std::nullopt;
  try {
    store_.save(configuration_);
    unsaved_ = false;
    return std::nullopt;
  } catch (const UnlockError& error) {
    return error;
  }
}

std::optional<UnlockError> UnlockSettings::reset() {
  try {
    store_.save({});
    configuration_ = {};
    loadFailure_.clear();
    unsaved_ = false;
    return std::nullopt;
  } catch (const UnlockError& error) {
    return error;
  }
}

}  // namespace sorvane::unlock
