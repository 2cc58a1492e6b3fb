#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/secret_text.h"
#include "vault/records.h"

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

}  // namespace sorvane::vault
