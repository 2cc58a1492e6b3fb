#pragma once

#include <optional>
#include <string>

#include "unlock/unlock_configuration_store.h"

namespace sorvane::unlock {

/// UnlockSettings is the unlock configuration in force, and what is known about its storage. Owned by the lock manager
/// and used on its thread.
class UnlockSettings {
 public:
  explicit UnlockSettings(UnlockConfigurationStore& store) : store_(store) {}

  /// Reads the stored configuration. A failure is kept in `loadFailure`, and in `resetCause` when only a reset helps;
  /// the configuration is then none that may open the vault.
  void load();
  /// Puts `configuration` in force and saves it. A failure to save leaves it in force with `unsaved` set, and is
  /// returned.
  std::optional<UnlockError> change(const UnlockConfiguration& configuration);
  /// Tries again to save what could not be saved; nothing when there is no such change.
  std::optional<UnlockError> saveAgain();
  /// Puts a configuration in force that is stored already.
  void adopted(const UnlockConfiguration& configuration);
  /// The stored configuration, read by somebody else, is not to be relied on: as a failure of `load`.
  void refuse(const UnlockError& error);
  /// Puts `fresh` in the place of a configuration that could not be read, with the reason of that stored in it. After a
  /// failure nothing is readable still.
  std::optional<UnlockError> reset(UnlockConfiguration fresh);

  const UnlockConfiguration& configuration() const { return configuration_; }
  /// Whether the configuration is the stored one.
  bool isReadable() const { return loadFailure_.empty(); }
  const std::string& loadFailure() const { return loadFailure_; }
  /// Whether the settings are out of reach for good, with the store that they lie in.
  bool isStoreLost() const { return storeLost_; }
  /// Why the settings had to be reset; stays after the reset, so that the owner can be told. Of a sealed store that is
  /// closed it is not known.
  const std::optional<UnlockError>& resetCause() const { return resetCause_; }
  bool unsaved() const { return unsaved_; }

  /// The organization's word on following the session; nullopt: there is none.
  const std::optional<bool>& managedFollowsSession() const { return managedFollowsSession_; }
  void setManagedFollowsSession(std::optional<bool> value) { managedFollowsSession_ = value; }
  /// The setting in force.
  bool followsSession() const { return managedFollowsSession_.value_or(configuration_.followsSession); }

 private:
  UnlockConfigurationStore& store_;
  UnlockConfiguration configuration_;
  std::string loadFailure_;
  std::optional<UnlockError> resetCause_;
  bool unsaved_ = false;
  bool storeLost_ = false;
  std::optional<bool> managedFollowsSession_;
};

}  // namespace sorvane::unlock
