#pragma once

#include "base/secret_text.h"
#include "unlock/unlock_configuration.h"

namespace sorvane::unlock {

/// PassphraseGate is what a passphrase opens: the credential store where that is sealed under it, the lock alone where
/// it is not. `attempt`, `adopt` and `release` take a moment and are called on the thread where passphrases are
/// derived, one at a time; the others from any thread.
class PassphraseGate {
 public:
  enum class Verdict {
    right,
    wrong,
    unknown,  ///< it could not be told, or the gate was closed meanwhile; that counts for nothing
  };

  virtual ~PassphraseGate() = default;
  /// Tries the passphrase, with one derivation. A sealed store is open afterwards when it is `right`, and the stored
  /// configuration can then be read; `configuration`, the one in force, is what a store that is not sealed goes by.
  virtual Verdict attempt(const base::SecretText& passphrase, const UnlockConfiguration& configuration) = 0;
  /// Has `configuration`, which names the verifier of `passphrase`, in force and stored: a store that can be sealed is
  /// sealed under the passphrase before this returns. Cut off at any point, what opened before or the new passphrase
  /// opens. Throws UnlockError storage, and vaultLocked for a sealed store that is not open; nothing has changed then.
  virtual void adopt(const base::SecretText& passphrase, const UnlockConfiguration& configuration) = 0;
  /// The same for a configuration whose requirement is off: the store is then readable without a passphrase.
  virtual void release(const UnlockConfiguration& configuration) = 0;
  /// Wipes the key of the store from memory; a sealed store needs its passphrase again.
  virtual void close() = 0;

  /// Whether the vault is held locked, as it was kept across a restart. What cannot be read counts as yes.
  virtual bool isHeld() const = 0;
  /// Keeps it. Throws UnlockError storage.
  virtual void setHeld(bool held) = 0;

  /// Whether the store cannot be opened without the passphrase.
  virtual bool isSealed() const = 0;
  /// What a reset puts in force: nothing that a store needs, but of a sealed one the passphrase that opened it and how
  /// it was asked. Throws UnlockError vaultLocked while that is not open.
  virtual UnlockConfiguration fresh() const = 0;
};

}  // namespace sorvane::unlock
