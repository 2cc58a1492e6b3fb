#include "unlock/backup_changes.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "base/json.h"
#include "unlock/backup_error.h"

namespace sorvane::unlock {
namespace {

using vault::Secret;

template <typename Record>
using ById = std::unordered_map<std::string_view, const Record*>;

template <typename Record>
ById<Record> byId(const std::vector<Record>& records) {
  ById<Record> index;
  for (const Record& record : records) index.emplace(record.id, &record);
  return index;
}

template <typename Record>
RecordChanges compared(const std::vector<Record>& present, const std::vector<Record>& restored) {
  RecordChanges changes;
  const ById<Record> before = byId(present), after = byId(restored);
  for (const Record& record : restored) {
    const auto found = before.find(record.id);
    const bool isSame = found != before.end() && *found->second == record;
    if (found == before.end()) changes.added.push_back(record.name);
    if (found != before.end() && !isSame) changes.changed.push_back(record.name);
    changes.same += isSame;
  }
  for (const Record& record : present) {
    if (!after.contains(record.id)) changes.lost.push_back(record.name);
  }
  return changes;
}

bool holdsCloudSecrets(const BackupPayload& payload) {
  const auto cache = payload.cloudCache ? base::parseJson(payload.cloudCache->view()) : std::nullopt;
  if (!cache || !cache->is_object()) return false;
  const auto secrets = cache->find("secrets");
  return secrets != cache->end() && secrets->is_array() && !secrets->empty();
}

}  // namespace

BackupChanges backupChanges(vault::Vault& vault, const BackupPayload& payload) {
  BackupChanges changes;
  changes.presentIsUnknown = vault.storageFailure().has_value();
  const auto present = changes.presentIsUnknown ? std::make_shared<const vault::Records>() : vault.records();
  // Never by the values: whoever may look at a file of their own making would learn whether a guess is right.
  changes.secrets = compared(present->secrets, payload.secrets);
  changes.environments = compared(present->projects, payload.projects);
  const auto protectedNow = changes.presentIsUnknown ? nullptr : vault.protection().settings;
  for (auto& [secretId, provider] : vault::providerKeys(payload)) {
    if (protectedNow && protectedNow->protectedSecrets.contains(secretId)) continue;
    const auto secret = std::find_if(payload.secrets.begin(), payload.secrets.end(),
                                     [&id = secretId](const Secret& candidate) { return candidate.id == id; });
    changes.unprotectedKeys.push_back({secretId, secret->name, provider});
  }
  changes.hasCloudSecrets = holdsCloudSecrets(payload);
  return changes;
}

BackupPayload gatherBackup(vault::Vault& vault, const vault::AccessContext& context, base::Date now,
                           const vault::Progress& progress) try {
  BackupPayload payload;
  static_cast<vault::VaultContents&>(payload) = vault.contents(context, progress);
  payload.exportedAt = now;
  return payload;
} catch (const vault::UnreadableValue& error) {
  throw BackupError(sentence::valueUnreadable(error.secretName()));
} catch (const vault::UnreadableHistory&) {
  throw BackupError(sentence::kHistoryUnreadable);
}

}  // namespace sorvane::unlock
