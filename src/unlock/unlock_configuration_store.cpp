#include "unlock/unlock_configuration_store.h"

namespace sorvane::unlock {
using Case = UnlockError::Case;

UnlockConfiguration SealedUnlockConfigurationStore::load() {
  try {
    const auto record = vault_.load(kUnlockSetting);
    if (!record) {
      if (firstRun_) return {};
      throw UnlockError(Case::settingsMissing);
    }
    firstRun_ = false;
    // Longer than anything that `save` wrote, so it is not even parsed.
    if (record->size() > vault::SealedSettings::kMaxSettingBytes) throw UnlockError(Case::settingsDamaged);
    auto configuration = decodeConfiguration(record->view());
    if (!configuration) throw UnlockError(Case::settingsDamaged);
    return *std::move(configuration);
  } catch (const UnlockError&) {
    throw;
  } catch (const vault::SettingError& error) {
    if (error.kind() == vault::SettingError::Case::wrongKey) throw UnlockError(Case::vaultKeyMismatch);
    throw UnlockError::storage(error.sentence());
  } catch (const base::Error& error) {
    throw UnlockError::storage(error.sentence());
  }
}

void SealedUnlockConfigurationStore::save(const UnlockConfiguration& configuration) {
  try {
    vault_.save(kUnlockSetting, encodeConfiguration(configuration).view());
    firstRun_ = false;
  } catch (const base::Error& error) {
    throw UnlockError::storage(error.sentence());
  }
}

}  // namespace sorvane::unlock
