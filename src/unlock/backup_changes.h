#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "unlock/backup_payload.h"
#include "vault/proxy_provider.h"
#include "vault/vault.h"

namespace sorvane::unlock {

/// What a restore does to records of one kind; names in the order of the records, told apart by id.
struct RecordChanges {
  std::vector<std::string> added, changed, lost;
  std::int64_t same = 0;
};

/// BackupChanges is what a restore would do to the present vault.
struct BackupChanges {
  /// The present vault cannot be opened, so nobody can tell what would be lost.
  bool presentIsUnknown = false;
  RecordChanges secrets, environments;
  struct ProviderKey {
    std::string secretId, name;
    vault::ProxyProvider provider;
  };
  /// Provider keys of the backup that are not protected.
  std::vector<ProviderKey> unprotectedKeys;
  /// The backup holds secrets of a cloud account, which are not restored.
  bool hasCloudSecrets = false;
};

/// Compares the records and never the values: two secrets are the same when all that is known of them beside their
/// values is.
BackupChanges backupChanges(vault::Vault& vault, const BackupPayload& payload);

/// What the vault holds, as a payload. Throws BackupError for a value or a history that cannot be read.
BackupPayload gatherBackup(vault::Vault& vault, const vault::AccessContext& context, base::Date now,
                           const vault::Progress& progress);

}  // namespace sorvane::unlock
