#include "vault/deployment_policy.h"

#include <algorithm>

#include "vault/vault.h"

namespace sorvane::vault {
namespace {

using Case = DeploymentPolicyError::Case;

const char* sentenceOf(Case kind) {
  switch (kind) {
    case Case::invalidTarget:
      return "Invalid deployment target.";
    case Case::invalidPolicy:
      return "Invalid key deployment policy.";
    case Case::unclassifiedEnvironment:
      return "Set a target for this environment before using protected keys.";
    case Case::missingTarget:
      return "Declare the deployment target before using this environment.";
    case Case::targetMismatch:
      return "The requested deployment target does not match this environment.";
    case Case::unclassifiedVersion:
      return "Limit where every selected key version can be used before using this environment.";
    case Case::versionNotAllowed:
      return "A selected key version is not allowed in this deployment target.";
    case Case::providerModeMismatch:
      return "The provider key mode does not match the deployment target.";
  }
  return "";
}

bool isTarget(const std::string& word) {
  return deploymentTargetOf(word).has_value();
}

bool isLetterOrDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

constexpr std::string_view kProduction = "production";

}  // namespace

DeploymentPolicyError::DeploymentPolicyError(Case kind) : Error(sentenceOf(kind)), kind_(kind) {}

void checkDeploymentTargets(const DeploymentQuestion& question) {
  const auto& [environment, requested, allowed] = question;
  if ((environment && !isTarget(*environment)) || (requested && !isTarget(*requested))) {
    throw DeploymentPolicyError(Case::invalidTarget);
  }
  if (allowed && !std::all_of(allowed->begin(), allowed->end(), isTarget))
    throw DeploymentPolicyError(Case::invalidPolicy);
  if (!environment) {
    if (requested || allowed) throw DeploymentPolicyError(Case::unclassifiedEnvironment);
    return;
  }
  if (!requested) throw DeploymentPolicyError(Case::missingTarget);
  if (*requested != *environment) throw DeploymentPolicyError(Case::targetMismatch);
  if (!allowed) throw DeploymentPolicyError(Case::unclassifiedVersion);
  if (std::find(allowed->begin(), allowed->end(), *environment) == allowed->end()) {
    throw DeploymentPolicyError(Case::versionNotAllowed);
  }
}

void checkDeployment(const DeploymentQuestion& question, std::string_view value) {
  checkDeploymentTargets(question);
  if (!question.environmentTarget) return;
  const bool production = *question.environmentTarget == kProduction;
  switch (providerKeyMode(value)) {
    case ProviderKeyMode::none:
      return;
    case ProviderKeyMode::live:
      if (!production) throw DeploymentPolicyError(Case::providerModeMismatch);
      return;
    case ProviderKeyMode::test:
      if (production) throw DeploymentPolicyError(Case::providerModeMismatch);
      return;
  }
}

ProviderKeyMode providerKeyMode(std::string_view value) {
  constexpr std::size_t kLeastTail = 16;
  if (!value.starts_with("sk_") && !value.starts_with("rk_") && !value.starts_with("pk_")) return ProviderKeyMode::none;
  value.remove_prefix(3);
  const bool test = value.starts_with("test_");
  if (!test && !value.starts_with("live_")) return ProviderKeyMode::none;
  value.remove_prefix(5);
  if (value.size() < kLeastTail || !std::all_of(value.begin(), value.end(), isLetterOrDigit))
    return ProviderKeyMode::none;
  return test ? ProviderKeyMode::test : ProviderKeyMode::live;
}

void checkTargetsAtEntry(const std::optional<std::vector<std::string>>& targets, std::string_view value) {
  if (!targets) return;
  const bool production = std::find(targets->begin(), targets->end(), kProduction) != targets->end();
  switch (providerKeyMode(value)) {
    case ProviderKeyMode::none:
      return;
    case ProviderKeyMode::test:
      if (production) {
        throw VaultError("This test key cannot be allowed in Production. Choose Development or Staging.");
      }
      return;
    case ProviderKeyMode::live:
      if (!production || targets->size() != 1) {
        throw VaultError("This live key can only be allowed in Production. Choose Production for the new version.");
      }
      return;
  }
}

std::vector<std::string> parseTargets(const std::vector<std::string>& words) {
  std::vector<std::string> targets;
  for (const DeploymentTarget target : kDeploymentTargets) {
    if (std::find(words.begin(), words.end(), word(target)) != words.end()) targets.emplace_back(word(target));
  }
  if (targets.empty() || !std::all_of(words.begin(), words.end(), isTarget)) {
    throw VaultError("Choose one or more of development, staging, production.");
  }
  return targets;
}

std::string sessionsEndedNote(std::size_t environments) {
  if (environments == 0) return ". No environment uses this version, so no task session ends";
  if (environments == 1) return ". This ends task sessions in the 1 environment that uses this version";
  return ". This ends task sessions in the " + std::to_string(environments) + " environments that use this version";
}

}  // namespace sorvane::vault
