#include "vault/vault_index.h"

#include <algorithm>

#include "base/unicode.h"

namespace sorvane::vault {
namespace {

template <typename Record>
const Record* findIn(const std::vector<Record>& records, const Records::Index& index, const std::string& key) {
  const auto found = index.find(key);
  return found == index.end() ? nullptr : &records[found->second];
}

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

template <typename Record>
void indexRecords(const std::vector<Record>& records, Records::Index& byId, Records::Index& byName) {
  byId.clear();
  byName.clear();
  byId.reserve(records.size());
  byName.reserve(records.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    byId.try_emplace(records[i].id, i);
    byName.try_emplace(nameKey(records[i].name), i);
  }
}

}  // namespace

std::string nameKey(std::string_view name) {
  const std::string_view bare = base::trimmed(name);
  // NFC leaves ASCII as it is, and nearly every name is ASCII.
  return isAscii(bare) ? std::string(bare) : base::nfc(bare);
}

void indexSecrets(Records& records) {
  indexRecords(records.secrets, records.secretIndexById, records.secretIndexByName);
}

void indexProjects(Records& records) {
  indexRecords(records.projects, records.projectIndexById, records.projectIndexByName);
  records.projectIndexesBySecret.clear();
  for (std::size_t i = 0; i < records.projects.size(); ++i) {
    for (const EnvBinding& binding : records.projects[i].bindings) {
      std::vector<std::size_t>& users = records.projectIndexesBySecret[binding.secretId];
      if (users.empty() || users.back() != i) users.push_back(i);
    }
  }
}

const Secret* Records::secretById(std::string_view id) const {
  return findIn(secrets, secretIndexById, std::string(id));
}
const Secret* Records::secretByName(std::string_view name) const {
  return findIn(secrets, secretIndexByName, nameKey(name));
}
const Project* Records::projectById(std::string_view id) const {
  return findIn(projects, projectIndexById, std::string(id));
}
const Project* Records::projectByName(std::string_view name) const {
  return findIn(projects, projectIndexByName, nameKey(name));
}

std::vector<const Project*> Records::projectsUsing(std::string_view secretId,
                                                   std::optional<std::int64_t> version) const {
  std::vector<const Project*> users;
  const auto found = projectIndexesBySecret.find(std::string(secretId));
  if (found == projectIndexesBySecret.end()) return users;
  const Secret* const secret = secretById(secretId);
  for (const std::size_t i : found->second) {
    const std::vector<EnvBinding>& bindings = projects[i].bindings;
    const bool uses = std::any_of(bindings.begin(), bindings.end(), [&](const EnvBinding& binding) {
      if (binding.secretId != secretId) return false;
      if (!version) return true;
      return binding.pinVersion ? *binding.pinVersion == *version
                                : secret != nullptr && secret->currentVersion == *version;
    });
    if (uses) users.push_back(&projects[i]);
  }
  return users;
}

}  // namespace sorvane::vault
