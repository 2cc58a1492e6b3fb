#pragma once

#include <atomic>

#include "unlock/unlock_configuration.h"
#include "unlock/unlock_error.h"
#include "vault/sealed_settings.h"

namespace sorvane::unlock {

/// UnlockConfigurationStore keeps the unlock configuration. Calls may block on a system prompt; any thread. Failures
/// are UnlockError.
class UnlockConfigurationStore {
 public:
  virtual ~UnlockConfigurationStore() = default;
  /// The stored configuration; a fresh one where none was ever stored. Throws settingsMissing, settingsDamaged,
  /// vaultKeyMismatch or storage.
  virtual UnlockConfiguration load() = 0;
  /// Throws storage; what was stored before is then still there.
  virtual void save(const UnlockConfiguration& configuration) = 0;
};

inline constexpr std::string_view kUnlockSetting = "unlock-settings";

/// SealedUnlockConfigurationStore keeps it as the vault's sealed setting kUnlockSetting, readable with the vault key
/// alone.
class SealedUnlockConfigurationStore final : public UnlockConfigurationStore {
 public:
  /// Whether no configuration was ever stored: only then is a missing one no failure.
  enum class FirstRun { no, yes };
  SealedUnlockConfigurationStore(vault::SealedSettings& vault, FirstRun firstRun)
      : vault_(vault), firstRun_(firstRun == FirstRun::yes) {}

  UnlockConfiguration load() override;
  void save(const UnlockConfiguration& configuration) override;
  bool firstRun() const { return firstRun_; }

 private:
  vault::SealedSettings& vault_;
  std::atomic<bool> firstRun_;
};

}  // namespace sorvane::unlock
