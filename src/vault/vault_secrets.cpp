#include <algorithm>

#include "vault/deployment_policy.h"
#include "vault/entry_rules.h"
#include "vault/vault_change.h"
#include "vault/vault_sentences.h"

namespace sorvane::vault {
namespace {

SecretVersion& versionIn(Secret& secret, std::int64_t number) {
  const SecretVersion* const found = secret.find(number);
  if (found == nullptr) throw VaultError(std::string(sentence::kInvalidVersion));
  return secret.versions[static_cast<std::size_t>(found - secret.versions.data())];
}

SecretVersion firstVersion(NewVersion& from, Date now) {
  SecretVersion version;
  version.label = std::move(from.label);
  version.createdAt = now;
  version.expiresAt = from.expiresAt;
  version.allowedDeploymentTargets = std::move(from.allowedDeploymentTargets);
  if (version.allowedDeploymentTargets)
    version.allowedDeploymentTargets = parseTargets(*version.allowedDeploymentTargets);
  return version;
}

/// Makes `version` the current one; the one before it retires.
void makeCurrent(Secret& secret, SecretVersion version, Date now) {
  version.status = VersionStatus::active;
  version.createdAt = now;
  version.retiredAt.reset();
  for (SecretVersion& before : secret.versions) {
    if (before.version != secret.currentVersion || before.status != VersionStatus::active) continue;
    before.status = VersionStatus::retired;
    before.retiredAt = now;
  }
  secret.currentVersion = version.version;
  secret.updatedAt = now;
  secret.versions.push_back(std::move(version));
}

}  // namespace

Secret Vault::createSecret(NewSecret from) {
  return change([&](Change& change) {
    Secret secret;
    secret.name = nameAtEntry(from.name, sentence::kSecretNameEmpty);
    if (change.records->secretByName(secret.name) != nullptr) throw VaultError(sentence::secretNameTaken(secret.name));
    requireText(std::string_view(from.description));
    requireText(from.tags);
    requireText(from.icon);
    requireValue(from.first);
    const Date now = ports_.clock.now();
    secret.id = newSecretId();
    secret.description = std::move(from.description);
    secret.tags = std::move(from.tags);
    secret.icon = std::move(from.icon);
    secret.isFavorite = from.isFavorite;
    secret.createdAt = secret.updatedAt = now;
    secret.versions.push_back(firstVersion(from.first, now));
    change.values.push_back({{secret.id, 1}, std::move(from.first.value)});
    change.created = {secret.id, secret.name};
    change.secretsChanged = true;
    change.records->secrets.push_back(secret);
    return secret;
  });
}

Secret Vault::editSecret(std::string_view id, const SecretEdit& edit) {
  return change([&](Change& change) {
    Secret& secret = change.secret(id);
    requireText(edit.description);
    if (edit.tags) requireText(*edit.tags);
    if (edit.icon) requireText(*edit.icon);
    if (edit.description) secret.description = *edit.description;
    if (edit.tags) secret.tags = *edit.tags;
    if (edit.icon) secret.icon = *edit.icon;
    if (edit.isFavorite) secret.isFavorite = *edit.isFavorite;
    secret.updatedAt = ports_.clock.now();
    change.secretsChanged = true;
    change.changedSecrets = {secret.id};
    return secret;
  });
}

Secret Vault::editVersion(std::string_view id, std::int64_t version, const VersionEdit& edit) {
  return change([&](Change& change) {
    Secret& secret = change.secret(id);
    SecretVersion& edited = versionIn(secret, version);
    if (edit.label) requireText(*edit.label);
    if (edit.label) edited.label = *edit.label;
    if (edit.expiresAt) edited.expiresAt = *edit.expiresAt;
    secret.updatedAt = ports_.clock.now();
    change.secretsChanged = true;
    change.changedSecrets = {secret.id};
    return secret;
  });
}

Secret Vault::renameSecret(std::string_view id, std::string_view name, Rebind rebind) {
  return change([&](Change& change) {
    Secret& secret = change.secret(id);
    const std::string bare = nameAtEntry(name, sentence::kSecretNameEmpty);
    const Secret* const holder = change.records->secretByName(bare);
    if (holder != nullptr && holder != &secret) throw VaultError(sentence::secretNameTaken(bare));
    const Date now = ports_.clock.now();
    if (rebind == Rebind::yes && bare != secret.name) change.renameVariables(secret, bare, now);
    secret.name = bare;
    secret.updatedAt = now;
    change.secretsChanged = true;
    change.changedSecrets = {secret.id};
    return secret;
  });
}

void Vault::Change::renameVariables(const Secret& secret, const std::string& name, Date now) {
  for (Project& project : records->projects) {
    for (EnvBinding& binding : project.bindings) {
      if (binding.secretId != secret.id || binding.envVarName != secret.name) continue;
      if (!isVariableName(name)) throw VaultError(std::string(sentence::kVariableName));
      if (project.find(name) != nullptr) throw VaultError(sentence::variableTaken(name, project.name));
      binding.envVarName = name;
      project.updatedAt = now;
      projectsChanged = true;
      revokedEnvironments.insert(project.name);
    }
  }
}

Secret Vault::addVersion(std::string_view id, NewVersion version) {
  return change([&](Change& change) {
    Secret& secret = change.secret(id);
    requireValue(version);
    change.revokeFollowers(secret);
    const Date now = ports_.clock.now();
    SecretVersion next = firstVersion(version, now);
    next.version = highestVersion(secret) + 1;
    makeCurrent(secret, std::move(next), now);
    change.values.push_back({{secret.id, secret.currentVersion}, std::move(version.value)});
    change.secretsChanged = true;
    change.changedSecrets = {secret.id};
    return secret;
  });
}

Secret Vault::restoreVersion(std::string_view id, std::int64_t version) {
  return change([&](Change& change) {
    Secret& secret = change.secret(id);
    SecretVersion earlier = versionIn(secret, version);
    if (earlier.status == VersionStatus::purged) throw VaultError(sentence::versionPurged(version, secret.name));
    if (version == secret.currentVersion) throw VaultError(sentence::versionIsCurrent(version, secret.name));
    base::SecretText value = readValue(secret, version);
    change.revokeFollowers(secret);
    earlier.version = highestVersion(secret) + 1;
    makeCurrent(secret, std::move(earlier), ports_.clock.now());
    change.values.push_back({{secret.id, secret.currentVersion}, std::move(value)});
    change.secretsChanged = true;
    change.changedSecrets = {secret.id};
    return secret;
  });
}

Secret Vault::limitVersion(std::string_view id, std::int64_t version,
                           const std::optional<std::vector<std::string>>& targets) {
  return change([&](Change& change) {
    Secret& secret = change.secret(id);
    SecretVersion& limited = versionIn(secret, version);
    if (limited.status == VersionStatus::purged) throw VaultError(sentence::versionPurged(version, secret.name));
    if (targets) {
      limited.allowedDeploymentTargets = parseTargets(*targets);
      checkTargetsAtEntry(limited.allowedDeploymentTargets, readValue(secret, version).view());
    } else {
      limited.allowedDeploymentTargets.reset();
    }
    secret.updatedAt = ports_.clock.now();
    change.revokeUsers(secret.id, version);
    change.secretsChanged = true;
    change.changedSecrets = {secret.id};
    return secret;
  });
}

void Vault::deleteSecret(std::string_view id) {
  change([&](Change& change) {
    const Secret secret = change.secret(id);
    change.revokeUsers(secret.id);
    for (const SecretVersion& version : secret.versions) {
      if (version.status != VersionStatus::purged) change.removedValues.push_back({secret.id, version.version});
    }
    std::erase_if(change.records->secrets, [&](const Secret& each) { return each.id == secret.id; });
    change.removedSecret = secret.id;
    change.changedSecrets = {secret.id};
    change.secretsChanged = true;
    return true;
  });
}

}  // namespace sorvane::vault
