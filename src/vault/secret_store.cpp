#include "vault/secret_store.h"

namespace sorvane::vault {

SecretStoreError SecretStoreError::tooLarge(std::size_t length) {
  return {Case::tooLarge,
          "secret value is " + std::to_string(length) + " bytes, exceeds maximum of " + std::to_string(kMaxValueBytes) +
              " bytes",
          {}};
}

SecretStoreError SecretStoreError::permissionDenied(const std::string& message) {
  return {Case::permissionDenied, "credential store access denied: " + message, message};
}

SecretStoreError SecretStoreError::backend(const std::string& message) {
  return {Case::backend, "credential store error: " + message, message};
}

SecretStoreError SecretStoreError::notFound() {
  return {Case::notFound, "secret value not found", {}};
}

}  // namespace sorvane::vault
