#pragma once

#include <memory>

#include "base/error.h"
#include "vault/secret_store.h"

namespace sorvane::platform {

/// NotSigned carries a sentence that says what was not done and what to do.
class NotSigned : public base::Error {
 public:
  using Error::Error;
};

/// The places of this application's items in the Keychain.
struct KeychainDomains {
  std::shared_ptr<vault::EnumerableSecretStore> dataProtection;
  std::shared_ptr<vault::EnumerableSecretStore> legacy;  ///< items are only moved away from it
};

/// Both domains with the service and the access group of this build. No item is looked at. Throws NotSigned when this
/// process was not signed for the group: the data-protection Keychain takes nothing from it, and the login Keychain,
/// which other programs can open, is no place for a value.
KeychainDomains openKeychain();

}  // namespace sorvane::platform
