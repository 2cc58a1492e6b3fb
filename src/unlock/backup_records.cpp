#include "unlock/backup_records.h"

#include <algorithm>
#include <string>
#include <unordered_set>

#include "base/unicode.h"
#include "unlock/backup_error.h"

namespace sorvane::unlock {
namespace {

void require(bool rule) {
  if (!rule) throw CryptoError(CryptoError::Case::malformedBackup);
}

bool isReadable(std::string_view name) {
  if (name.size() > kMaxNameBytes || base::trimmed(name).empty()) return false;
  while (!name.empty()) {
    const base::Decoded decoded = base::decodeUtf8(name);
    if (base::isControl(decoded.character)) return false;
    name.remove_prefix(decoded.size);
  }
  return true;
}

void requireReadable(std::string_view name) {
  if (!isReadable(name)) throw BackupError(sentence::nameNotAccepted(name));
}

template <typename Record>
void requireSoundNames(const std::vector<Record>& records) {
  std::unordered_set<std::string> names;
  for (const Record& record : records) {
    requireReadable(record.name);
    require(names.insert(vault::nameKey(record.name)).second);
  }
}

void requireSoundVariables(const vault::Project& project) {
  std::unordered_set<std::string_view> variables;
  for (const vault::EnvBinding& binding : project.bindings) {
    requireReadable(binding.envVarName);
    require(variables.insert(binding.envVarName).second);
  }
}

}  // namespace

void requireSoundRecords(const BackupPayload& payload) {
  require(vault::isRestorable(payload));
  requireSoundNames(payload.secrets);
  requireSoundNames(payload.projects);
  for (const vault::Project& project : payload.projects) requireSoundVariables(project);
}

}  // namespace sorvane::unlock
