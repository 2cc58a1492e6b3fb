#include <algorithm>

#include "vault/vault.h"
#include "vault/vault_hold_back.h"
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
  const auto [at, isFirst] = carried_.try_emplace(provider, Carried{secret.id, binding.envVarName});
  if (!isFirst && at->second.secretId != secret.id) {
    throw ProtectionError::twoKeys(provider, at->second.variable, binding.envVarName);
  }
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
  if (!isKnown && !remembered && !shape && !providerByName(binding.envVarName)) return std::nullopt;
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
  if (providerByShape(value) || providerByName(secret.name)) requireSettings();
  requireNoneInside(value);
}

std::vector<base::SecretText> Vault::valuesOf(const Secret& secret) {
  std::vector<base::SecretText> values;
  for (const SecretVersion& version : secret.versions) {
    if (version.status == VersionStatus::purged) continue;
    try {
      values.push_back(readValue(secret, version.version));
    } catch (const VaultError&) {
      // What cannot be read now cannot be looked for either; it may be readable the next time.
    }
  }
  return values;
}

std::set<std::string> Vault::environmentsDelivering(const Secret& secret) {
  const auto records = currentRecords();
  const std::vector<base::SecretText> needles = valuesOf(secret);
  std::map<std::pair<std::string, std::int64_t>, bool> holds;
  const auto holdsKey = [&](const Secret& other, std::int64_t version) REQUIRES(lock_) {
    const auto [at, isNew] = holds.try_emplace({other.id, version}, false);
    if (!isNew) return at->second;
    try {
      at->second = standsAny(needles, readValue(other, version).view());
    } catch (const VaultError&) {
    }
    return at->second;
  };
  std::set<std::string> names;
  for (const Project& project : records->projects) {
    for (const EnvBinding& binding : project.bindings) {
      const Secret* const bound = records->secretById(binding.secretId);
      if (bound == nullptr || names.contains(project.name)) continue;
      const std::int64_t version = binding.pinVersion.value_or(bound->currentVersion);
      if (bound->id == secret.id || holdsKey(*bound, version)) names.insert(project.name);
    }
  }
  return names;
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
  if (const auto shape = providerByShape(readValue(*secret, secret->currentVersion).view())) return shape;
  if (const auto named = providerByName(secret->name)) return named;
  std::optional<ProxyProvider> found;
  for (const Project* const project : records->projectsUsing(secret->id)) {
    for (const EnvBinding& binding : project->bindings) {
      if (binding.secretId != secret->id) continue;
      const auto named = providerByName(binding.envVarName);
      if (named && found && *named != *found) return std::nullopt;
      if (named) found = named;
    }
  }
  return found;
}

void Vault::editProtection(const std::function<void(LocalProxySettings&)>& edit) {
  const auto before = protectedKeys_->known();
  LocalProxySettings settings = *before.settings;
  edit(settings);
  if (settings == *before.settings && before.state == ProtectionState::present) return;
  protectedKeys_->save(settings);
}

void Vault::protectSecret(std::string_view secretId, ProxyProvider provider) {
  std::set<std::string> environments;
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
    environments = environmentsDelivering(*secret);
    editProtection([&](LocalProxySettings& settings) {
      settings.protectedSecrets.insert_or_assign(secret->id, provider);
      for (const Project* const project : records->projectsUsing(secret->id)) {
        for (const EnvBinding& binding : project->bindings) {
          if (binding.secretId == secret->id) settings.variables[project->id][binding.envVarName] = provider;
        }
      }
    });
  }
  if (!environments.empty()) ports_.sessions.revoke(RevokeEnvironments{environments});
  observers_->protection(environments);
}

void Vault::unprotectSecret(std::string_view secretId) {
  std::set<std::string> environments;
  {
    const base::RecursiveLock lock(lock_);
    const auto records = currentRecords();
    const Secret* const secret = records->secretById(secretId);
    if (secret == nullptr) throw VaultError(std::string(sentence::kUnknownSecret));
    for (const Project* const project : records->projectsUsing(secret->id)) environments.insert(project->name);
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
  if (!environments.empty()) ports_.sessions.revoke(RevokeEnvironments{environments});
  observers_->protection(environments);
}

void Vault::adopt(const ProxySplitRender& split) {
  bool adopted = false;
  {
    const base::RecursiveLock lock(lock_);
    editProtection([&](LocalProxySettings& settings) {
      for (const ProxyRenderedKey& key : split.keys) {
        adopted |= settings.protectedSecrets.try_emplace(key.secretId, key.provider).second;
        settings.variables[split.rendered.environmentId].try_emplace(key.variable, key.provider);
      }
    });
  }
  if (adopted) observers_->protection({});
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
