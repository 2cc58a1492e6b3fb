#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "vault/access_log.h"
#include "vault/accounts.h"
#include "vault/sealed_files.h"
#include "vault/vault.h"
#include "vault/vault_contents.h"
#include "vault/vault_sentences.h"

namespace sorvane::vault {
namespace {

std::int64_t versionsWithValues(const std::vector<Secret>& secrets) {
  std::int64_t count = 0;
  for (const Secret& secret : secrets) {
    count += std::count_if(secret.versions.begin(), secret.versions.end(),
                           [](const SecretVersion& version) { return version.status != VersionStatus::purged; });
  }
  return count;
}

/// Positive numbers in ascending order, the current one among them.
bool hasSoundVersions(const Secret& secret) {
  std::int64_t before = 0;
  for (const SecretVersion& version : secret.versions) {
    if (version.version <= before) return false;
    before = version.version;
  }
  return secret.current() != nullptr;
}

/// Ids are this system's own or another writer's: anything printable that is no longer than any of them.
bool isSoundId(std::string_view id) {
  constexpr std::size_t kMaxIdBytes = 128;
  return !id.empty() && id.size() <= kMaxIdBytes &&
         std::all_of(id.begin(), id.end(), [](char c) { return c > ' ' && c < '\x7f' && c != ':'; });
}

bool isStorable(const SecretValueEntry& entry) {
  return entry.value.size() <= kMaxValueBytes &&
         parseVersionAccount(accountOf(entry.secretId, entry.version)) == VersionAccount{entry.secretId, entry.version};
}

}  // namespace

bool isRestorable(const VaultContents& contents) {
  std::unordered_map<std::string_view, const Secret*> byId;
  for (const Secret& secret : contents.secrets) {
    if (!isSoundId(secret.id) || !byId.emplace(secret.id, &secret).second || !hasSoundVersions(secret)) return false;
  }
  std::unordered_set<std::string_view> projects;
  for (const Project& project : contents.projects) {
    if (!isSoundId(project.id) || !projects.insert(project.id).second) return false;
  }
  std::unordered_set<std::string> accounts;
  for (const SecretValueEntry& entry : contents.values) {
    const auto secret = byId.find(entry.secretId);
    const SecretVersion* const version = secret == byId.end() ? nullptr : secret->second->find(entry.version);
    if (version == nullptr || version->status == VersionStatus::purged || !isStorable(entry)) return false;
    if (!accounts.insert(accountOf(entry.secretId, entry.version)).second) return false;
  }
  return static_cast<std::int64_t>(accounts.size()) == versionsWithValues(contents.secrets);
}

VaultContents Vault::contents(const AccessContext& context, const Progress& progress) {
  const base::RecursiveLock lock(lock_);
  const auto records = currentRecords();
  VaultContents contents;
  contents.secrets = records->secrets;
  contents.projects = records->projects;
  try {
    auto audit = readLog(ports_.files, generationFolder(generation_));
    if (!audit) throw UnreadableHistory(std::string(sentence::kLogUnreadable));
    contents.audit = *std::move(audit);
    if (const auto cache = ports_.files.read(fileOf(kCloudCacheFile))) {
      contents.cloudCache = openFile(provenKey(), {generation_, kCloudCacheFile}, cache->bytes);
      if (!contents.cloudCache) throw VaultError(std::string(sentence::kKeyDoesNotOpen));
    }
  } catch (const base::FileError& error) {
    throw VaultError(sentence::notRead(error.sentence()));
  }
  const std::int64_t total = versionsWithValues(contents.secrets);
  std::vector<AccessEvent> events;
  for (const Secret& secret : contents.secrets) {
    for (const SecretVersion& version : secret.versions) {
      if (version.status == VersionStatus::purged) continue;
      if (progress) progress(static_cast<std::int64_t>(events.size()), total);
      try {
        contents.values.push_back({secret.id, version.version, readValue(secret, version.version)});
      } catch (const VaultError& error) {
        throw UnreadableValue(error.sentence(), secret.name);
      }
      AccessEvent& event = events.emplace_back(eventOf(context));
      event.secretId = secret.id;
      event.version = version.version;
    }
  }
  if (progress) progress(total, total);
  appendEvents(events);
  return contents;
}

}  // namespace sorvane::vault
