#include "vault/entry_rules.h"

#include <algorithm>

#include "base/unicode.h"
#include "vault/deployment_policy.h"
#include "vault/vault_sentences.h"

namespace sorvane::vault {
namespace {

bool holdsControl(std::string_view text) {
  while (!text.empty()) {
    const base::Decoded decoded = base::decodeUtf8(text);
    if (base::isControl(decoded.character)) return true;
    text.remove_prefix(decoded.size);
  }
  return false;
}

}  // namespace

void requireText(std::string_view text) {
  if (!base::isUtf8(text)) throw VaultError(std::string(sentence::kNotUtf8));
}

void requireText(const std::optional<std::string>& text) {
  if (text) requireText(std::string_view(*text));
}

void requireText(const std::vector<std::string>& texts) {
  for (const std::string& text : texts) requireText(std::string_view(text));
}

std::string nameAtEntry(std::string_view name, std::string_view whenEmpty) {
  requireText(name);
  std::string bare(base::trimmed(name));
  if (bare.empty()) throw VaultError(std::string(whenEmpty));
  if (holdsControl(bare)) throw VaultError(std::string(sentence::kControlInName));
  return bare;
}

void requireValue(const NewVersion& version) {
  if (version.value.size() > kMaxValueBytes) throw SecretStoreError::tooLarge(version.value.size());
  requireText(version.value.view());
  // A variable ends at a NUL for the system: a command would get the first part, and the mask would look for the whole.
  if (version.value.view().find('\0') != std::string_view::npos) throw VaultError(std::string(sentence::kNulInValue));
  requireText(version.label);
  if (version.allowedDeploymentTargets) {
    parseTargets(*version.allowedDeploymentTargets);
    checkTargetsAtEntry(version.allowedDeploymentTargets, version.value.view());
  }
}

}  // namespace sorvane::vault
