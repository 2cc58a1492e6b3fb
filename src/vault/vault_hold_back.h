#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vault/protected_keys.h"
#include "vault/vault.h"

namespace sorvane::vault {

/// HoldBack decides, for one operation under the vault's lock, which values are protected keys and which may not leave.
class Vault::HoldBack {
 public:
  HoldBack(Vault& vault, const Records& records);

  /// The provider when the variable's value is a protected key, or is to become one; nullopt for any other value, which
  /// `requireNoneInside` is still to be asked about. Throws ProtectionError.
  std::optional<ProxyProvider> providerOf(const Project& project, const EnvBinding& binding, const Secret& secret,
                                          std::string_view value);
  /// Throws ProtectionError when a protected key stands in the value.
  void requireNoneInside(std::string_view value);
  /// Throws ProtectionError unless the secret's value may leave by itself.
  void requireFree(const Secret& secret, std::string_view value);
  std::map<std::string, ProxyProvider> takeAdopted() { return std::move(adopted_); }

 private:
  struct Carried {
    std::string secretId, variable;
    std::int64_t version = 0;
  };

  /// Throws ProtectionError when what is stored cannot be relied on.
  void requireSettings();
  bool mayBeProviderKey(const Secret& secret, std::string_view variable, std::string_view value) const;
  void carry(ProxyProvider provider, const Secret& secret, const EnvBinding& binding);

  Vault& vault_;
  const Records& records_;
  ProtectedKeys::Known known_;
  bool isVerified_ = false;
  std::map<ProxyProvider, Carried> carried_;
  std::map<std::string, ProxyProvider> adopted_;
  /// The values of all protected keys; read when they are first needed.
  std::optional<std::vector<base::SecretText>> needles_;
};

}  // namespace sorvane::vault
