#include "unlock/backup_changes.h"

#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "base/json.h"
#include "unlock/backup_error.h"

namespace sorvane::unlock {
namespace {

using vault::Secret;
using vault::SecretValueEntry;

template <typename Record>
using ById = std::unordered_map<std::string_view, const Record*>;

template <typename Record>
ById<Record> byId(const std::vector<Record>& records) {
  ById<Record> index;
  for (const Record& record : records) index.emplace(record.id, &record);
  return index;
}

/// `same` decides about two records of one id.
template <typename Record, typename Same>
RecordChanges compared(const std::vector<Record>& present, const std::vector<Record>& restored, const Same& same) {
  RecordChanges changes;
  const ById<Record> before = byId(present), after = byId(restored);
  for (const Record& record : restored) {
    const auto found = before.find(record.id);
    const bool isSame = found != before.end() && same(*found->second, record);
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

BackupChanges backupChanges(vault::Vault& vault, const BackupPayload& payload, const vault::Progress& progress) {
  BackupChanges changes;
  changes.presentIsUnknown = vault.storageFailure().has_value();
  const auto present = changes.presentIsUnknown ? std::make_shared<const vault::Records>() : vault.records();
  std::unordered_map<std::string_view, std::vector<const SecretValueEntry*>> values;
  for (const SecretValueEntry& entry : payload.values) values[entry.secretId].push_back(&entry);
  const auto total = static_cast<std::int64_t>(payload.secrets.size());
  std::int64_t done = 0;
  changes.secrets = compared(present->secrets, payload.secrets, [&](const Secret& before, const Secret& after) {
    if (progress) progress(done++, total);
    if (before != after) return false;
    const auto entries = values.find(after.id);
    return entries == values.end() ||
           std::all_of(entries->second.begin(), entries->second.end(), [&](const SecretValueEntry* entry) {
             return vault.valueIs(after.id, entry->version, entry->value);
           });
  });
  changes.environments = compared(present->projects, payload.projects, std::equal_to<>());
  const auto protectedNow = changes.presentIsUnknown ? nullptr : vault.protection().settings;
  for (auto& [secretId, provider] : vault::providerKeys(payload)) {
    if (protectedNow && protectedNow->protectedSecrets.contains(secretId)) continue;
    const auto secret = std::find_if(payload.secrets.begin(), payload.secrets.end(),
                                     [&id = secretId](const Secret& candidate) { return candidate.id == id; });
    changes.unprotectedKeys.push_back({secretId, secret->name, provider});
  }
  changes.hasCloudSecrets = holdsCloudSecrets(payload);
  if (progress) progress(total, total);
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
