#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

#include "base/files.h"
#include "base/mutex.h"
#include "unlock/passphrase_gate.h"
#include "unlock/sealable_store.h"
#include "unlock/store_door.h"
#include "unlock/store_wrap.h"
#include "unlock/unlock_configuration_store.h"

namespace sorvane::unlock {

/// The file beside store.wrap that is there while the vault is held locked. It is no secret and guards nothing: a
/// program that may remove it may read a store without a passphrase as well.
inline constexpr std::string_view kHoldName = "locked.hold";

/// StoreGate stands before the credential store in use. It keeps the unlock configuration there, and the store key of a
/// store that can be sealed in the file store.wrap, sealed under the passphrase. While the gate is closed a sealed
/// store's configuration is what that file says: a verifier of no more than its salt, and the record of wrong
/// passphrases, which is all that is saved then. Any thread, but for what PassphraseGate says; no callback.
///
/// Killed at any point, the passphrase that opened the store before or the one that was being set opens it:
///   - Sealing (the first passphrase): the copy of the database is written, with the new settings in it; store.wrap is
///     written, which is the switch; the copy takes the place of the database; store.key is removed.
///   - Changing the passphrase: the settings first, store.wrap second. In between the old passphrase opens, and the
///     verifier in the settings, whose salt is not the one that store.wrap names, is made anew.
///   - Releasing: store.key is written, store.wrap removed, which is the switch, and the settings saved last. In
///   between
///     the settings ask for the old passphrase, which then seals the store again.
///   - Changing what else opens the vault: whichever of store.wrap and the settings would ask less is written last, so
///     that store.wrap never asks more than the settings unless somebody forged them.
class StoreGate final : public PassphraseGate, public UnlockConfigurationStore {
 public:
  using Store = SealableStore::Store;
  using FirstRun = SealedUnlockConfigurationStore::FirstRun;

  /// A store, and how it is opened.
  struct Kind {
    std::function<Store()> open;        ///< as far as it needs no passphrase
    SealableStore* sealable = nullptr;  ///< the same store where a passphrase can seal it
  };
  struct Ports {
    base::Files& files;
    std::filesystem::path wrap;  ///< the path of store.wrap
    StoreDoor& door;
    /// What sealing and new verifiers cost; a test may ask for less.
    crypto::PassphraseCost cost;
  };
  StoreGate(Ports ports, Kind kind, FirstRun firstRun);

  Verdict attempt(const base::SecretText& passphrase, const UnlockConfiguration& configuration) override;
  void adopt(const base::SecretText& passphrase, const UnlockConfiguration& configuration) override;
  void release(const UnlockConfiguration& configuration) override;
  void close() override;
  bool isHeld() const override;
  void setHeld(bool held) override;
  bool isSealed() const override;
  UnlockConfiguration fresh() const override;

  UnlockConfiguration load() override;
  void save(const UnlockConfiguration& configuration) override;

  /// Whether no settings were there before the ones that this object saved when it first read them, and nobody has set
  /// a passphrase since.
  bool isFirstRun() const;
  /// Opens the door to a store that needs no passphrase; one that is open stays so. Throws UnlockError vaultLocked for
  /// a sealed store; other failures are those of the store itself and of the files.
  void open();

  /// A move of the items to another store. Until it ends nothing is saved in the store. Returns the open store;
  /// throws UnlockError vaultLocked without one.
  Store beginMove();
  /// The items are in `store` now, which is of another kind.
  void moved(Kind kind, Store store);
  void endMove();

  /// Closes the gate and calls `replace`, behind which another store lies in the place of this one, with settings of
  /// its own. What that throws passes through, and the store is the one before; after StoreLost there is none.
  void replace(const std::function<void()>& replace);

 private:
  Verdict attemptUnsealed(const base::SecretText& passphrase, const UnlockConfiguration& configuration);
  Verdict attemptSealed(const base::SecretText& passphrase, const StoreWrap& wrap, std::uint64_t closings);
  void mend(const base::SecretText& passphrase, std::uint64_t closings);
  void tryToSeal(const base::SecretText& passphrase, const UnlockConfiguration& configuration, std::uint64_t closings);

  void settle() REQUIRES(mutex_);
  void settleSealed(StoreWrap wrap) REQUIRES(mutex_);
  std::optional<StoreWrap> readWrap() const REQUIRES(mutex_);
  void writeWrap(const StoreWrap& wrap) REQUIRES(mutex_);
  Store usable() REQUIRES(mutex_);
  void openDoor(Store store) REQUIRES(mutex_);
  void shutDoor() REQUIRES(mutex_);
  std::filesystem::path holdPath() const;
  UnlockConfiguration loadFrom(vault::SecretStore& store) REQUIRES(mutex_);
  void saveInto(vault::SecretStore& store, const UnlockConfiguration& configuration) REQUIRES(mutex_);

  enum class After { asBefore, open };
  void seal(const WrappingKey& wrapping, const UnlockConfiguration& configuration, After after) REQUIRES(mutex_);
  void putInPlace(const std::optional<StoreWrap>& before, bool wasOpen) REQUIRES(mutex_);
  bool takeBack(const std::optional<StoreWrap>& before) REQUIRES(mutex_);
  void rewrap(StoreWrap wrap, const WrappingKey& wrapping, const UnlockConfiguration& configuration) REQUIRES(mutex_);
  void unwrap(StoreWrap wrap, const UnlockConfiguration& configuration) REQUIRES(mutex_);

  const Ports ports_;
  // Guarded. Held while the files of the store are written, since one caller at a time may do that, and never during a
  // derivation.
  mutable base::Mutex mutex_;
  Kind kind_ GUARDED_BY(mutex_);
  bool firstRun_ GUARDED_BY(mutex_);           ///< no settings were ever stored
  bool madeHere_ GUARDED_BY(mutex_) = false;   ///< the stored ones are the fresh ones of this run
  bool isSettled_ GUARDED_BY(mutex_) = false;  ///< what an end at any point may have left behind was cleared
  bool isMoving_ GUARDED_BY(mutex_) = false;
  std::optional<std::string> lost_ GUARDED_BY(mutex_);  ///< why there is no store any more, as a sentence
  std::uint64_t closings_ GUARDED_BY(mutex_) = 0;
  Store opened_ GUARDED_BY(mutex_);                             ///< the store behind the door
  std::optional<crypto::SymmetricKey> key_ GUARDED_BY(mutex_);  ///< of a sealed store that is open
  /// The verifier of the passphrase that opened a store whose settings are not to be relied on.
  std::optional<PassphraseVerifier> known_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::unlock
