#pragma once

#include <string>

#include "crypto/digest.h"
#include "vault/vault.h"

namespace sorvane::vault {

/// The key that was proven to open a generation, by its digest: the key itself is never kept.
struct Vault::VerifiedKey {
  std::string generation;
  crypto::Sha256Digest digest;
  bool operator==(const VerifiedKey&) const = default;
};

}  // namespace sorvane::vault
