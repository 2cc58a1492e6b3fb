#include "vault/sealed_files.h"

#include <string>

#include "base/codec.h"
#include "crypto/aead.h"
#include "vault/accounts.h"

namespace sorvane::vault {
namespace {

std::string associatedData(const SealedName& name) {
  return std::string("sorvane.vault.").append(name.generation).append("/").append(name.file).append(".v1");
}

}  // namespace

crypto::SymmetricKey makeVaultKey(SecretStore& store) {
  crypto::SymmetricKey key = crypto::SymmetricKey::random();
  std::string text = base::base64(key.bytes());
  const base::SecretText value{text};
  base::wipe(text);
  store.store(kMetadataKeyAccount, value);
  return key;
}

std::optional<crypto::SymmetricKey> readVaultKey(SecretStore& store) {
  try {
    auto bytes = base::parseBase64(store.read(kMetadataKeyAccount).view());
    if (!bytes) return std::nullopt;
    auto key = crypto::SymmetricKey::fromBytes(*bytes);
    base::wipe(bytes->data(), bytes->size());
    return key;
  } catch (const SecretStoreError& error) {
    if (error.kind() == SecretStoreError::Case::notFound) return std::nullopt;
    throw;
  }
}

base::Bytes sealFile(const crypto::SymmetricKey& key, const SealedName& name, std::string_view text) {
  return crypto::seal(key, base::bytesOf(text), associatedData(name));
}

std::optional<base::SecretText> openFile(const crypto::SymmetricKey& key, const SealedName& name,
                                         std::span<const std::uint8_t> sealed) {
  return crypto::open(key, sealed, associatedData(name));
}

}  // namespace sorvane::vault
