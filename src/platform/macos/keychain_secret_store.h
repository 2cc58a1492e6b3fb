#pragma once

#include <optional>
#include <string>
#include <utility>

#include "vault/secret_store.h"

namespace sorvane::platform {

/// KeychainSecretStore keeps values in the Keychain, one generic password an account. The values can be read on this
/// computer alone and while it is unlocked. A call may wait for a question of the system. Any thread.
class KeychainSecretStore final : public vault::EnumerableSecretStore {
 public:
  /// Domain tells the two Keychains of a user apart.
  class Domain {
   public:
    /// The data-protection Keychain: its items are seen by the programs that are signed for `group` and no others.
    static Domain dataProtection(std::string group) { return Domain(std::move(group)); }
    /// The file-based login Keychain, of which items are only moved away.
    static Domain legacy() { return Domain(std::nullopt); }
    /// Absent in the legacy domain.
    const std::optional<std::string>& group() const { return group_; }

   private:
    explicit Domain(std::optional<std::string> group) : group_(std::move(group)) {}
    std::optional<std::string> group_;
  };

  /// `service` and the group are UTF-8.
  KeychainSecretStore(std::string service, Domain domain) : service_(std::move(service)), domain_(std::move(domain)) {}

  void store(std::string_view account, const base::SecretText& value) override;
  base::SecretText read(std::string_view account) override;
  void remove(std::string_view account) override;
  std::vector<std::string> accounts() override;

 private:
  // Constant after construction.
  const std::string service_;
  const Domain domain_;
};

}  // namespace sorvane::platform
