#include "platform/macos/keychain_domains.h"

#include <string>

#include "platform/macos/access_group.h"
#include "platform/macos/identity.h"
#include "platform/macos/keychain_secret_store.h"

namespace sorvane::platform {
namespace {

std::string notSigned() {
  return "sorvaned is not signed for the Keychain group " + std::string(kAccessGroup) +
         ", so macOS keeps no values for it. Nothing was opened and nothing was shared. Sign it with a certificate and "
         "a "
         "provisioning profile for that group, as docs/macos.md describes, and start it again.";
}

}  // namespace

KeychainDomains openKeychain() {
  auto group = ownAccessGroup(kAccessGroup);
  if (!group) throw NotSigned(notSigned());
  using Domain = KeychainSecretStore::Domain;
  const std::string service(kKeychainService);
  return {std::make_shared<KeychainSecretStore>(service, Domain::dataProtection(*std::move(group))),
          std::make_shared<KeychainSecretStore>(service, Domain::legacy())};
}

}  // namespace sorvane::platform
