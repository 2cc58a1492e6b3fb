#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "base/files.h"
#include "base/mutex.h"
#include "platform/shared/embedded_store_files.h"
#include "unlock/store_gate.h"
#include "unlock/vault_switch.h"
#include "vault/movable_store.h"
#include "vault/store_move.h"
#include "vault/store_record.h"

namespace sorvane::app {

/// Stores has the credential store of the support folder, keeps the record of which one that is, and moves the items to
/// another. Made, it has only chosen: until `open`, or until the passphrase opened a sealed store through `gate`, and
/// again after `close`, every call of the store in use throws UnlockError vaultLocked. The unlock settings can be read
/// all the while, as far as StoreGate says. Any thread.
class Stores {
 public:
  /// Throws vault::StoreRecordError when `asked` is refused, FileError when the choice cannot be recorded, and
  /// base::Error when the system's store is not for this program or its items could not be brought over from their old
  /// place; nothing is served then.
  Stores(std::filesystem::path supportFolder, base::Files& files, std::optional<vault::StoreKind> asked);

  vault::MovableStore& inUse() { return inUse_; }
  vault::StoreRecord record() const;
  unlock::UnlockConfigurationStore& configuration() { return gate_; }
  unlock::PassphraseGate& gate() { return gate_; }

  /// Opens a store that needs no passphrase; one that is open stays so. One that cannot be opened is open as a store
  /// whose every call fails with the reason, so that the application can still say what is wrong. Throws UnlockError
  /// vaultLocked for a sealed store that its passphrase has not opened.
  void open();
  /// The store in use, opened once more for the caller alone; for what must be read or saved while the vault is locked.
  /// Throws UnlockError vaultLocked for a sealed one.
  std::shared_ptr<vault::EnumerableSecretStore> openBeside();
  /// Closes the store in use and wipes its key.
  void close() { gate_.close(); }
  /// Whether the values cannot be read without the passphrase.
  bool isSealed() const { return gate_.isSealed(); }
  /// Whether nothing was ever stored here: no vault, no settings but those of this start, no passphrase.
  bool isNew() const;
  /// What the values are not protected against, as a sentence.
  std::string protectionInWords() const;
  /// The vault was opened with the store: a choice that waited for that is recorded.
  void opened();

  unlock::VaultSwitch& vaultSwitch() { return switch_; }
  /// Puts the vault in `stage`, with its embedded store, in the place of the one that is here, and returns the folder
  /// with that. Nothing of either is open. What it throws left everything as it was; after StoreLost the next start
  /// does the rest.
  std::filesystem::path switchTo(const std::filesystem::path& stage, base::Date now);

  /// Removes every item of the store in use, and then what sealed them.
  void removeItems();

  /// Throws vault::StoreMoveError when the items cannot go there now.
  void checkMove(vault::StoreKind to);
  vault::StoreMoveOutcome move(vault::StoreKind to, const vault::StoreMoveSteps& steps);
  /// Removes what an interrupted move left behind. Does nothing when there is nothing.
  void finishMove();

 private:
  using Store = unlock::SealableStore::Store;
  /// Chooses, and records the choice where that need not wait.
  vault::StoreRecord choose(std::optional<vault::StoreKind> asked);
  unlock::StoreGate::Kind kindOf(vault::StoreKind kind);
  Store openTarget(vault::StoreKind kind);
  Store openLeft(vault::StoreKind kind);
  void emptied(vault::StoreKind kind);
  /// Moves the items to where the system keeps them now, if they still lie where it kept them in earlier times.
  void bringOver();
  void keep(const vault::StoreRecord& record);

  // Constant after construction.
  const std::filesystem::path folder_;
  base::Files& files_;
  platform::EmbeddedStoreFiles embedded_;
  unlock::VaultSwitch switch_;
  // Guarded. A leaf: files are written without it, by one move at a time.
  mutable base::Mutex mutex_;
  bool recordWhenOpened_ GUARDED_BY(mutex_) = false;
  vault::StoreRecord record_ GUARDED_BY(mutex_);
  // With synchronisation of their own.
  std::shared_ptr<unlock::StoreDoor> door_ = std::make_shared<unlock::StoreDoor>();
  vault::MovableStore inUse_{door_};
  unlock::StoreGate gate_;
};

}  // namespace sorvane::app
