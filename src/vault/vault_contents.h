#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/secret_text.h"
#include "vault/records.h"
#include "vault/vault.h"

namespace sorvane::vault {

/// One version's value as it stands in a backup.
struct SecretValueEntry {
  std::string secretId;
  std::int64_t version = 0;
  base::SecretText value;
};

/// VaultContents is all that a vault holds, values included: what a backup carries and a restore puts in place.
/// Move-only, since the values are.
struct VaultContents {
  std::vector<Secret> secrets;
  std::vector<Project> projects;
  std::vector<AccessEvent> audit;
  /// One entry for each version that is active or retired, none for a purged one.
  std::vector<SecretValueEntry> values;
  /// The JSON text of cloud-cache.json; passed through, never interpreted.
  std::optional<base::SecretText> cloudCache;
};

/// Whether a vault can be made of the contents: ids that stand for one record each, versions in ascending order, and a
/// value that a store takes for each active or retired version and for no other.
bool isRestorable(const VaultContents& contents);

/// Secrets whose current values are provider keys, by id, as they, their names or their variables tell.
ProviderKeys providerKeys(const VaultContents& contents);

/// The value of a version that should have one could not be read.
class UnreadableValue : public VaultError {
 public:
  UnreadableValue(const std::string& sentence, std::string secretName)
      : VaultError(sentence), secretName_(std::move(secretName)) {}
  const std::string& secretName() const { return secretName_; }

 private:
  std::string secretName_;
};

/// The access log holds something that is no event.
class UnreadableHistory : public VaultError {
 public:
  using VaultError::VaultError;
};

}  // namespace sorvane::vault
