#include "vault/sealed_settings.h"

#include "base/codec.h"
#include "crypto/aead.h"
#include "vault/accounts.h"
#include "vault/sealed_files.h"
#include "vault/vault_sentences.h"
#include "vault/vault_state.h"

namespace sorvane::vault {
namespace {

std::string associatedData(std::string_view name) {
  return std::string("sorvane.sealed.").append(name).append(".v1");
}

/// Removes anything that holds the store's failure back from being told as one of settings.
template <typename Sentence, typename Call>
auto told(const Sentence& sentenceOf, const Call& call) {
  try {
    return call();
  } catch (const SecretStoreError& error) {
    throw SettingError(SettingError::Case::storage, sentenceOf(error.sentence()));
  }
}

/// StoredSettings are the sealed settings of one vault, in the store of its values.
class StoredSettings final : public SealedSettings {
 public:
  explicit StoredSettings(SecretStore& store) : store_(store) {}

  std::optional<base::SecretText> load(std::string_view name) override;
  void save(std::string_view name, std::string_view record) override;
  void remove(std::string_view name) override;

 private:
  crypto::SymmetricKey key() const;

  SecretStore& store_;
};

}  // namespace

crypto::SymmetricKey StoredSettings::key() const {
  auto key = readVaultKey(store_);
  if (!key) throw SettingError(SettingError::Case::wrongKey, std::string(sentence::kKeyDoesNotOpen));
  return *std::move(key);
}

std::optional<base::SecretText> StoredSettings::load(std::string_view name) {
  return told(sentence::settingNotRead, [&]() -> std::optional<base::SecretText> {
    base::SecretText stored;
    try {
      stored = store_.read(sealedSettingAccount(name));
    } catch (const SecretStoreError& error) {
      if (error.kind() == SecretStoreError::Case::notFound) return std::nullopt;
      throw;
    }
    const auto box = base::parseBase64(stored.view());
    auto record = box ? crypto::open(key(), *box, associatedData(name)) : std::nullopt;
    if (!record) throw SettingError(SettingError::Case::wrongKey, sentence::settingWrongKey(name));
    return record;
  });
}

void StoredSettings::save(std::string_view name, std::string_view record) {
  if (record.size() > kMaxSettingBytes) {
    throw SettingError(SettingError::Case::storage, sentence::settingTooLarge(name));
  }
  told(sentence::settingNotSaved, [&] {
    const base::Bytes box = crypto::seal(key(), base::bytesOf(record), associatedData(name));
    store_.store(sealedSettingAccount(name), base::SecretText(base::base64(box)));
  });
}

void StoredSettings::remove(std::string_view name) {
  told(sentence::settingNotSaved, [&] { store_.remove(sealedSettingAccount(name)); });
}

std::unique_ptr<SealedSettings> sealedSettingsIn(SecretStore& store) {
  return std::make_unique<StoredSettings>(store);
}

SealedSettings& Vault::settings() {
  return *settings_;
}

}  // namespace sorvane::vault
