#pragma once

#include <functional>
#include <memory>

#include "crypto/key.h"
#include "vault/secret_store.h"

namespace sorvane::unlock {

/// StoreLost is a store whose key is gone: nothing on this computer opens it again. Its sentence may be shown.
class StoreLost : public base::Error {
 public:
  using Error::Error;
};

/// SealableStore is a credential store in files of the support folder, whose key lies in clear beside it or is kept by
/// somebody else. One call at a time. Failures are SecretStoreError and FileError.
class SealableStore {
 public:
  using Store = std::shared_ptr<vault::EnumerableSecretStore>;

  virtual ~SealableStore() = default;
  /// Opens the store under the key in clear; both are made where there are none. Throws StoreLost for values without
  /// their key.
  virtual Store openPlain() = 0;
  /// Opens the store under `key`.
  virtual Store open(const crypto::SymmetricKey& key) = 0;

  /// Writes every item of `from` anew under `key` into a second database beside the first, lets `edit` change what it
  /// holds, reads all of it back, and has it on the disk when it returns. A copy that lay there is replaced.
  virtual void writeCopy(vault::EnumerableSecretStore& from, const crypto::SymmetricKey& key,
                         const std::function<void(vault::SecretStore&)>& edit) = 0;
  virtual bool hasCopy() = 0;
  /// Puts the copy in the place of the first database and of its log. No store may be open. Cut off, it is called
  /// again.
  virtual void putCopyInPlace() = 0;
  virtual void removeCopy() = 0;

  // The key in clear.
  virtual bool hasPlainKey() = 0;
  virtual void writePlainKey(const crypto::SymmetricKey& key) = 0;
  virtual void removePlainKey() = 0;
};

}  // namespace sorvane::unlock
