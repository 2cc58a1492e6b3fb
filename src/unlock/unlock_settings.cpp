#include "unlock/unlock_settings.h"

namespace sorvane::unlock {
namespace {

bool isMendedByReset(const UnlockError& error) {
  using Case = UnlockError::Case;
  return error.kind() == Case::settingsMissing || error.kind() == Case::settingsDamaged ||
         error.kind() == Case::vaultKeyMismatch;
}

std::optional<UnlockError> causeIn(const UnlockConfiguration& configuration) {
  return configuration.resetCause ? std::optional(UnlockError(*configuration.resetCause)) : std::nullopt;
}

}  // namespace

void UnlockSettings::load() {
  try {
    adopted(store_.load());
  } catch (const UnlockError& error) {
    refuse(error);
  }
}

void UnlockSettings::adopted(const UnlockConfiguration& configuration) {
  configuration_ = configuration;
  loadFailure_.clear();
  storeLost_ = false;
  unsaved_ = false;
  resetCause_ = causeIn(configuration);
}

void UnlockSettings::refuse(const UnlockError& error) {
  configuration_ = {};
  unsaved_ = false;
  loadFailure_ = error.sentence();
  storeLost_ = error.isStoreLost();
  resetCause_ = isMendedByReset(error) ? std::optional(error) : std::nullopt;
}

std::optional<UnlockError> UnlockSettings::change(const UnlockConfiguration& configuration) {
  configuration_ = configuration;
  resetCause_ = causeIn(configuration);
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

std::optional<UnlockError> UnlockSettings::reset(UnlockConfiguration fresh) {
  if (resetCause_) fresh.resetCause = resetCause_->kind();
  try {
    store_.save(fresh);
    adopted(fresh);
    return std::nullopt;
  } catch (const UnlockError& error) {
    return error;
  }
}

}  // namespace sorvane::unlock
