#include "platform/linux/store_key.h"

#include "vault/secret_store.h"

namespace sorvane::platform {

using vault::SecretStoreError;

std::optional<crypto::SymmetricKey> PlainKeyFile::load() {
  try {
    auto contents = files_.read(path_, crypto::SymmetricKey::kBytes);
    if (!contents) return std::nullopt;
    auto key = crypto::SymmetricKey::fromBytes(contents->bytes);
    base::wipe(contents->bytes.data(), contents->bytes.size());
    if (!key) throw SecretStoreError::backend("the store key file " + path_.string() + " is damaged");
    return key;
  } catch (const base::FileError& error) {
    throw SecretStoreError::backend(error.sentence());
  }
}

crypto::SymmetricKey PlainKeyFile::make() {
  auto key = crypto::SymmetricKey::random();
  try {
    files_.writeAtomically(path_, key.bytes());
  } catch (const base::FileError& error) {
    throw SecretStoreError::backend(error.sentence());
  }
  return key;
}

}  // namespace sorvane::platform
