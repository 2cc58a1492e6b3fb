#include "vault/namespaced_store.h"

#include "vault/accounts.h"

namespace sorvane::vault {

std::string NamespacedSecretStore::accountFor(std::string_view account) const {
  {
    const base::Lock lock(mutex_);
    if (failure_) throw SecretStoreError::backend(*failure_);
  }
  return nameSpace_.empty() ? std::string(account) : namespacedAccount(nameSpace_, account);
}

void NamespacedSecretStore::store(std::string_view account, const base::SecretText& value) {
  base_.store(accountFor(account), value);
}

base::SecretText NamespacedSecretStore::read(std::string_view account) {
  return base_.read(accountFor(account));
}

void NamespacedSecretStore::remove(std::string_view account) {
  base_.remove(accountFor(account));
}

std::vector<std::string> NamespacedSecretStore::accounts() {
  const std::string start = accountFor("");
  std::vector<std::string> names;
  for (const std::string& account : base_.accounts()) {
    if (account.starts_with(start)) names.push_back(account.substr(start.size()));
  }
  return names;
}

}  // namespace sorvane::vault
