#pragma once

#include <string>

#include "crypto/digest.h"
#include "vault/sealed_settings.h"
#include "vault/vault.h"

namespace sorvane::vault {

/// The key that was proven to open a generation, by its digest: the key itself is never kept.
struct Vault::VerifiedKey {
  std::string generation;
  crypto::Sha256Digest digest;
  bool operator==(const VerifiedKey&) const = default;
};

/// Settings are the sealed settings of one vault, in the store of its values.
class Vault::Settings final : public SealedSettings {
 public:
  explicit Settings(EnumerableSecretStore& store) : store_(store) {}

  std::optional<base::SecretText> load(std::string_view name) override;
  void save(std::string_view name, std::string_view record) override;
  void remove(std::string_view name) override;

 private:
  crypto::SymmetricKey key() const;

  EnumerableSecretStore& store_;
};

}  // namespace sorvane::vault
