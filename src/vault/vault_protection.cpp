#include <algorithm>

#include "base/diagnostics.h"
#include "vault/accounts.h"
#include "vault/vault.h"
#include "vault/vault_contents.h"
#include "vault/vault_hold_back.h"
#include "vault/vault_index.h"
#include "vault/vault_observers.h"
#include "vault/vault_sentences.h"
#include "vault/vault_state.h"

namespace sorvane::vault {
namespace {

/// Shortest value that can be protected: a shorter one stands inside other values by chance.
constexpr std::size_t kShortestProtected = 16;

bool stands(const base::SecretText& needle, std::string_view value) {
  return needle.size() >= kShortestProtected && value.find(needle.view()) != std::string_view::npos;
}

bool standsAny(const std::vector<base::SecretText>& needles, std::string_view value) {
  return std::any_of(needles.begin(), needles.end(), [&](const auto& needle) { return stands(needle, value); });
}

/// The provider that a value, its secret's name or its variables tell; nullopt when none does. What contradicts itself
/// is for the owner to say.
std::optional<ProxyProvider> toldProvider(const Records& records, const Secret& secret, std::string_view value) {
  std::set<ProxyProvider> told;
  const auto tell = [&](std::optional<ProxyProvider> provider) {
    if (provider) told.insert(*provider);
  };
  if (isDistinctShape(value)) tell(providerByShape(value));
  tell(providerByName(secret.name));
  for (const Project* const project : records.projectsUsing(secret.id)) {
    for (const EnvBinding& binding : project->bindings) {
      if (binding.secretId == secret.id) tell(providerByName(binding.envVarName));
    }
  }
  return told.size() == 1 ? std::optional(*told.begin()) : std::nullopt;
}

}  // namespace

Vault::HoldBack::HoldBack(Vault& vault, const Records& records)
    : vault_(vault), records_(records), known_(vault.protectedKeys_->known()) {}

void Vault::HoldBack::requireSettings() {
  if (known_.state == ProtectionState::present && !isVerified_) {
    known_ = vault_.protectedKeys_->verified();
    isVerified_ = true;
  }
  if (known_.state == ProtectionState::removed) throw ProtectionError::settingsRemoved();
}

void Vault::HoldBack::carry(ProxyProvider provider, const Secret& secret, const EnvBinding& binding) {
  const std::int64_t version = binding.pinVersion.value_or(secret.currentVersion);
  const auto [at, isFirst] = carried_.try_emplace(provider, Carried{secret.id, binding.envVarName, version});
  if (!isFirst && (at->second.secretId != secret.id || at->second.version != version)) {
    throw ProtectionError::twoKeys(provider, at->second.variable, binding.envVarName);
  }
}

bool Vault::HoldBack::mayBeProviderKey(const Secret& secret, std::string_view variable, std::string_view value) const {
  return providerByName(variable) || providerByName(secret.name) || holdsKeyShape(value);
}

std::optional<ProxyProvider> Vault::HoldBack::providerOf(const Project& project, const EnvBinding& binding,
                                                         const Secret& secret, std::string_view value) {
  if (known_.state == ProtectionState::none) return std::nullopt;
  const auto shape = providerByShape(value);
  const LocalProxySettings& settings = *known_.settings;
  const auto isProtected = settings.protectedSecrets.find(secret.id);
  const auto environment = settings.variables.find(project.id);
  const auto remembered = [&]() -> std::optional<ProxyProvider> {
    if (environment == settings.variables.end()) return std::nullopt;
    const auto variable = environment->second.find(binding.envVarName);
    return variable == environment->second.end() ? std::nullopt : std::optional(variable->second);
  }();
  const bool isKnown = isProtected != settings.protectedSecrets.end();
  if (!isKnown && !remembered && !mayBeProviderKey(secret, binding.envVarName, value)) return std::nullopt;
  const std::optional<ProxyProvider> known = isKnown ? std::optional(isProtected->second) : remembered;
  requireSettings();
  if (!known) return std::nullopt;
  if (shape && *shape != *known) throw ProtectionError::unclear(binding.envVarName);
  if (!isKnown) adopted_.emplace(binding.envVarName, *known);
  carry(*known, secret, binding);
  return known;
}

void Vault::HoldBack::requireNoneInside(std::string_view value) {
  if (known_.state == ProtectionState::none || value.size() < kShortestProtected) return;
  if (!needles_) {
    needles_.emplace();
    std::set<std::string_view> ids;
    for (const auto& [id, provider] : known_.settings->protectedSecrets) ids.insert(id);
    for (const auto& [provider, carried] : carried_) ids.insert(carried.secretId);
    for (const std::string_view id : ids) {
      const Secret* const secret = records_.secretById(id);
      if (secret == nullptr) continue;
      for (base::SecretText& key : vault_.valuesOf(*secret)) needles_->push_back(std::move(key));
    }
  }
  if (standsAny(*needles_, value)) throw ProtectionError::keyInside();
}

void Vault::HoldBack::requireFree(const Secret& secret, std::string_view value) {
  if (known_.state == ProtectionState::none) return;
  const auto& protectedSecrets = known_.settings->protectedSecrets;
  if (protectedSecrets.contains(secret.id)) throw ProtectionError::isProtected(secret.name);
  bool mayBe = mayBeProviderKey(secret, secret.name, value);
  for (const Project* const project : records_.projectsUsing(secret.id)) {
    for (const EnvBinding& binding : project->bindings) {
      mayBe |= binding.secretId == secret.id && mayBeProviderKey(secret, binding.envVarName, value);
    }
  }
  if (mayBe) requireSettings();
  requireNoneInside(value);
}

std::vector<base::SecretText> Vault::valuesOf(const Secret& secret) {
  std::vector<base::SecretText> values;
  for (const SecretVersion& version : secret.versions) {
    if (version.status == VersionStatus::purged) continue;
    try {
      values.push_back(ports_.store.read(accountOf(secret.id, version.version)));
    } catch (const SecretStoreError& error) {
      // A value that is gone cannot be given away; one that the store holds back cannot be looked for.
      if (error.kind() == SecretStoreError::Case::notFound) continue;
      throw VaultError(sentence::keychainDenied(version.version, secret.name));
    }
  }
  return values;
}

Vault::Delivering Vault::environmentsDelivering(const Secret& secret) {
  const auto records = currentRecords();
  const std::vector<base::SecretText> needles = valuesOf(secret);
  std::map<std::pair<std::string, std::int64_t>, bool> holds;
  const auto mayHoldKey = [&](const Secret& other, std::int64_t version) {
    const auto [at, isNew] = holds.try_emplace({other.id, version}, false);
    if (!isNew) return at->second;
    try {
      at->second = standsAny(needles, readValue(other, version).view());
    } catch (const VaultError&) {
      at->second = true;  // in doubt its sessions end
    }
    return at->second;
  };
  Delivering delivering;
  for (const Project& project : records->projects) {
    const bool delivers = std::any_of(project.bindings.begin(), project.bindings.end(), [&](const EnvBinding& binding) {
      const Secret* const bound = records->secretById(binding.secretId);
      return bound != nullptr &&
             (bound->id == secret.id || mayHoldKey(*bound, binding.pinVersion.value_or(bound->currentVersion)));
    });
    if (!delivers) continue;
    delivering.names.insert(project.name);
    delivering.ids.insert(project.id);
  }
  return delivering;
}

void Vault::tellProtection(const Delivering& delivering) {
  if (!delivering.names.empty()) ports_.sessions.revoke(RevokeEnvironments{delivering.names});
  observers_->protection(delivering.ids);
}

ProtectedKeys::Known Vault::protection() {
  {
    const base::RecursiveLock lock(lock_);
    requireOpen();
  }
  return protectedKeys_->verified();
}

void Vault::requireUnprotected(std::string_view secretId) {
  const base::RecursiveLock lock(lock_);
  const auto records = currentRecords();
  const Secret* const secret = records->secretById(secretId);
  const auto known = protectedKeys_->known();
  if (secret != nullptr && known.settings->protectedSecrets.contains(secret->id)) {
    throw ProtectionError::isProtected(secret->name);
  }
}

std::optional<ProxyProvider> Vault::recognisedProvider(std::string_view secretId) {
  const base::RecursiveLock lock(lock_);
  const auto records = currentRecords();
  const Secret* const secret = records->secretById(secretId);
  if (secret == nullptr) throw VaultError(std::string(sentence::kUnknownSecret));
  return toldProvider(*records, *secret, readValue(*secret, secret->currentVersion).view());
}

ProviderKeys providerKeys(const VaultContents& contents) {
  Records records;
  records.secrets = contents.secrets;
  records.projects = contents.projects;
  indexSecrets(records);
  indexProjects(records);
  ProviderKeys keys;
  for (const SecretValueEntry& entry : contents.values) {
    const Secret* const secret = records.secretById(entry.secretId);
    if (secret == nullptr || secret->currentVersion != entry.version || entry.value.size() < kShortestProtected)
      continue;
    if (const auto provider = toldProvider(records, *secret, entry.value.view())) {
      keys.emplace_back(secret->id, *provider);
    }
  }
  return keys;
}

void Vault::editProtection(const std::function<void(LocalProxySettings&)>& edit) {
  const auto before = protectedKeys_->known();
  if (before.state == ProtectionState::removed) throw ProtectionError::settingsRemoved();
  LocalProxySettings settings = *before.settings;
  edit(settings);
  if (!(settings == *before.settings)) protectedKeys_->save(settings);
}

void Vault::protectSecret(std::string_view secretId, ProxyProvider provider) {
  Delivering delivering;
  {
    const base::RecursiveLock lock(lock_);
    const auto records = currentRecords();
    const Secret* const secret = records->secretById(secretId);
    if (secret == nullptr) throw VaultError(std::string(sentence::kUnknownSecret));
    const base::SecretText value = readValue(*secret, secret->currentVersion);
    if (value.size() < kShortestProtected) throw VaultError(sentence::tooShortToProtect(secret->name));
    const auto shape = providerByShape(value.view());
    if (shape && *shape != provider) {
      throw VaultError(sentence::otherProvidersKey(secret->name, shownName(*shape), shownName(provider)));
    }
    delivering = environmentsDelivering(*secret);
    editProtection([&](LocalProxySettings& settings) {
      settings.protectedSecrets.insert_or_assign(secret->id, provider);
      for (const Project* const project : records->projectsUsing(secret->id)) {
        for (const EnvBinding& binding : project->bindings) {
          if (binding.secretId == secret->id) settings.variables[project->id][binding.envVarName] = provider;
        }
      }
    });
  }
  tellProtection(delivering);
}

std::shared_ptr<const LocalProxySettings> Vault::protectAhead(const VaultContents& contents, const ProviderKeys& keys) {
  if (keys.empty()) return nullptr;
  try {
    auto before = protectedKeys_->known().settings;
    editProtection([&](LocalProxySettings& settings) {
      for (const auto& [secretId, provider] : keys) settings.protectedSecrets.try_emplace(secretId, provider);
      for (const Project& project : contents.projects) {
        for (const EnvBinding& binding : project.bindings) {
          const auto key = std::ranges::find(keys, binding.secretId, &ProviderKeys::value_type::first);
          if (key != keys.end()) settings.variables[project.id].try_emplace(binding.envVarName, key->second);
        }
      }
    });
    return before;
  } catch (const base::Error& error) {
    base::diagnose("vault", "keys could not be protected before a restore: " + error.sentence());
    return nullptr;
  }
}

void Vault::undoProtection(const std::shared_ptr<const LocalProxySettings>& before) {
  if (!before) return;
  try {
    protectedKeys_->save(*before);
  } catch (const base::Error& error) {
    base::diagnose("vault", "keys of a restore that failed stay protected: " + error.sentence());
  }
}

void Vault::unprotectSecret(std::string_view secretId) {
  Delivering delivering;
  {
    const base::RecursiveLock lock(lock_);
    const auto records = currentRecords();
    const Secret* const secret = records->secretById(secretId);
    if (secret == nullptr) throw VaultError(std::string(sentence::kUnknownSecret));
    for (const Project* const project : records->projectsUsing(secret->id)) {
      delivering.names.insert(project->name);
      delivering.ids.insert(project->id);
    }
    editProtection([&](LocalProxySettings& settings) {
      settings.protectedSecrets.erase(secret->id);
      for (const Project* const project : records->projectsUsing(secret->id)) {
        for (const EnvBinding& binding : project->bindings) {
          if (binding.secretId == secret->id) settings.variables[project->id].erase(binding.envVarName);
        }
      }
      std::erase_if(settings.protectedSecrets, [&](const auto& item) { return !records->secretById(item.first); });
      std::erase_if(settings.variables,
                    [&](const auto& item) { return item.second.empty() || !records->projectById(item.first); });
    });
  }
  tellProtection(delivering);
}

Vault::Delivering Vault::adopt(const ProxySplitRender& split) {
  const auto records = currentRecords();
  editProtection([&](LocalProxySettings& settings) {
    for (const ProxyRenderedKey& key : split.keys) {
      settings.variables[split.rendered.environmentId].try_emplace(key.variable, key.provider);
      if (split.adopt.contains(key.variable)) settings.protectedSecrets.try_emplace(key.secretId, key.provider);
    }
  });
  Delivering delivering;
  for (const ProxyRenderedKey& key : split.keys) {
    const Secret* const secret = split.adopt.contains(key.variable) ? records->secretById(key.secretId) : nullptr;
    if (secret == nullptr) continue;
    Delivering more = environmentsDelivering(*secret);
    delivering.names.merge(more.names);
    delivering.ids.merge(more.ids);
  }
  return delivering;
}

void Vault::setProxyOptions(const std::string& options) {
  {
    const base::RecursiveLock lock(lock_);
    requireOpen();
    editProtection([&](LocalProxySettings& settings) { settings.options = options; });
  }
  observers_->protection({});
}

void Vault::confirmProtection() {
  {
    const base::RecursiveLock lock(lock_);
    requireOpen();
    protectedKeys_->confirm();
  }
  observers_->protection({});
}

Vault::ObserverToken Vault::observeProtection(std::function<void(const std::set<std::string>& environments)> observer) {
  return observers_->add(std::move(observer));
}

}  // namespace sorvane::vault
