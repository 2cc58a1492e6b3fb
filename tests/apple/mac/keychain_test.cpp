// Built and run on a Mac only: the store's contract against the Keychain itself. The items stand under a service of
// their own in the login Keychain, which a program that is not signed may use, and are gone afterwards.

#include <gtest/gtest.h>

#include "platform/macos/keychain_secret_store.h"
#include "support/secret_store_contract.h"

namespace sorvane::test {

struct LoginKeychain {
  LoginKeychain() { clear(); }
  ~LoginKeychain() { clear(); }
  std::unique_ptr<vault::EnumerableSecretStore> make() {
    return std::make_unique<platform::KeychainSecretStore>(kService, platform::KeychainSecretStore::Domain::legacy());
  }

 private:
  static constexpr const char* kService = "app.sorvane.test";
  void clear() {
    const auto store = make();
    for (const std::string& account : store->accounts()) store->remove(account);
  }
};

INSTANTIATE_TYPED_TEST_SUITE_P(Login, SecretStoreContract, LoginKeychain);

}  // namespace sorvane::test
