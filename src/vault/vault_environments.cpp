#include <algorithm>

#include "vault/deployment_policy.h"
#include "vault/entry_rules.h"
#include "vault/vault_change.h"
#include "vault/vault_sentences.h"

namespace sorvane::vault {
namespace {

void requireTarget(const std::optional<std::string>& target) {
  if (target && !deploymentTargetOf(*target)) {
    throw DeploymentPolicyError(DeploymentPolicyError::Case::invalidTarget);
  }
}

auto bindingIn(Project& project, std::string_view envVarName) {
  const auto found = std::find_if(project.bindings.begin(), project.bindings.end(),
                                  [&](const EnvBinding& each) { return each.envVarName == envVarName; });
  if (found == project.bindings.end()) throw VaultError(std::string(sentence::kUnknownVariable));
  return found;
}

void requireBinding(const Records& records, const EnvBinding& binding) {
  if (!isVariableName(binding.envVarName)) throw VaultError(std::string(sentence::kVariableName));
  const Secret* const secret = records.secretById(binding.secretId);
  if (secret == nullptr) throw VaultError(std::string(sentence::kUnknownSecret));
  if (!binding.pinVersion) return;
  if (*binding.pinVersion <= 0) throw VaultError(std::string(sentence::kPinNotPositive));
  if (secret->find(*binding.pinVersion) == nullptr) throw VaultError(std::string(sentence::kInvalidVersion));
}

}  // namespace

/// The trimmed name, which no other environment has and no retired cloud grant reserves.
std::string Vault::Change::projectName(std::string_view name, const Project* self) const {
  std::string bare = nameAtEntry(name, sentence::kProjectNameEmpty);
  const Project* const holder = records->projectByName(bare);
  if (holder != nullptr && holder != self) throw VaultError(sentence::projectNameTaken(bare));
  if (retiredNames.contains(nameKey(bare))) throw VaultError(std::string(sentence::kProjectNameReserved));
  return bare;
}

Project Vault::createEnvironment(const NewEnvironment& from) {
  return change([&](Change& change) {
    Project project;
    project.name = change.projectName(from.name, nullptr);
    requireText(std::string_view(from.description));
    requireText(from.rootPath);
    requireTarget(from.deploymentTarget);
    project.id = newProjectId();
    project.description = from.description;
    project.rootPath = from.rootPath;
    project.deploymentTarget = from.deploymentTarget;
    project.createdAt = project.updatedAt = ports_.clock.now();
    change.projectsChanged = true;
    change.records->projects.push_back(project);
    return project;
  });
}

Project Vault::editEnvironment(std::string_view id, const EnvironmentEdit& edit) {
  return change([&](Change& change) {
    Project& project = change.project(id);
    requireText(edit.description);
    if (edit.rootPath) requireText(*edit.rootPath);
    if (edit.description) project.description = *edit.description;
    if (edit.rootPath) project.rootPath = *edit.rootPath;
    return change.touched(project, ports_.clock.now());
  });
}

Project Vault::renameEnvironment(std::string_view id, std::string_view name) {
  return change([&](Change& change) {
    Project& project = change.project(id);
    const std::string bare = change.projectName(name, &project);
    change.revokedEnvironments.insert(project.name);
    project.name = bare;
    return change.touched(project, ports_.clock.now());
  });
}

Project Vault::setTarget(std::string_view id, const std::optional<std::string>& target) {
  return change([&](Change& change) {
    Project& project = change.project(id);
    requireTarget(target);
    project.deploymentTarget = target;
    change.revokedEnvironments.insert(project.name);
    return change.touched(project, ports_.clock.now());
  });
}

Project Vault::bind(std::string_view id, const EnvBinding& binding) {
  return change([&](Change& change) {
    Project& project = change.project(id);
    requireBinding(*change.records, binding);
    const auto held = std::find_if(project.bindings.begin(), project.bindings.end(),
                                   [&](const EnvBinding& each) { return each.envVarName == binding.envVarName; });
    if (held == project.bindings.end())
      project.bindings.push_back(binding);
    else
      *held = binding;
    change.revokedEnvironments.insert(project.name);
    return change.touched(project, ports_.clock.now());
  });
}

Project Vault::unbind(std::string_view id, std::string_view envVarName) {
  return change([&](Change& change) {
    Project& project = change.project(id);
    project.bindings.erase(bindingIn(project, envVarName));
    change.revokedEnvironments.insert(project.name);
    return change.touched(project, ports_.clock.now());
  });
}

Project Vault::moveBinding(std::string_view id, std::string_view envVarName, std::size_t position) {
  return change([&](Change& change) {
    Project& project = change.project(id);
    const auto from = bindingIn(project, envVarName);
    const auto to =
        project.bindings.begin() + static_cast<std::ptrdiff_t>(std::min(position, project.bindings.size() - 1));
    if (from < to)
      std::rotate(from, from + 1, to + 1);
    else
      std::rotate(to, from, from + 1);
    return change.touched(project, ports_.clock.now());
  });
}

void Vault::deleteEnvironment(std::string_view id) {
  change([&](Change& change) {
    const Project project = change.project(id);
    std::erase_if(change.records->projects, [&](const Project& each) { return each.id == project.id; });
    change.revokedEnvironments.insert(project.name);
    change.projectsChanged = true;
    change.alwaysJournalled = true;  // as every removal is
    return true;
  });
}

}  // namespace sorvane::vault
