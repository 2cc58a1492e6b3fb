#include "agent/handlers.h"
#include "base/unicode.h"
#include "vault/deployment_policy.h"

namespace sorvane::agent {

AgentResponse noEnvironment(std::string_view name) {
  const std::string sentence =
      base::trimmed(name).empty()
          ? "no environment named. Pass the environment name; list_environments shows the names."
          : "no environment named '" + std::string(name) +
                "'. list_environments shows the names; create_environment or import_project adds one.";
  return AgentResponse::refused(sentence, "environment_not_found");
}

AgentResponse otherEnvironment(std::string_view name) {
  return AgentResponse::refused(
      "'" + std::string(name) + "' is not available to this client. Enable it in sorvane > Settings > Agents.",
      "environment_not_allowed");
}

std::string environmentNameOf(const AgentRequest& request) {
  return request.environment ? *request.environment : request.arg.value_or("");
}

EnvironmentLookup environmentOf(const vault::Records& records, const Caller& caller, std::string_view name) {
  if (base::trimmed(name).empty()) return {nullptr, noEnvironment(name)};
  if (caller.scope && !sameEnvironmentName(*caller.scope, name)) {
    return {nullptr, otherEnvironment(name)};
  }
  const vault::Project* const environment = records.projectByName(name);
  if (environment == nullptr) return {nullptr, noEnvironment(name)};
  return {environment, std::nullopt};
}

const vault::Secret* visibleSecret(const vault::Records& records, const Caller& caller, std::string_view name) {
  const vault::Secret* const secret = records.secretByName(name);
  if (secret == nullptr || !caller.scope) return secret;
  for (const vault::Project* const environment : records.projectsUsing(secret->id)) {
    if (sameEnvironmentName(*caller.scope, environment->name)) return secret;
  }
  return nullptr;
}

std::optional<AgentResponse> refusedChange(const Caller& caller, std::string_view verb, std::string_view name) {
  if (!caller.scope || sameEnvironmentName(*caller.scope, name)) return std::nullopt;
  return AgentResponse::refused("this client is scoped to '" + *caller.scope + "' and can't " + std::string(verb) +
                                    " '" + std::string(name) + "'",
                                "environment_not_allowed");
}

std::optional<std::string> declaredTarget(const AgentRequest& request) {
  const auto found = request.payload.find("deploymentTarget");
  if (found == request.payload.end()) return std::nullopt;
  return found->second;
}

std::string runControlWarning(std::string_view name) {
  return std::string(name) + ": left out, because it changes how programs run and its binding does not allow that";
}

void checkTargetsBeforeAsking(const vault::Records& records, const vault::Project& environment,
                              const std::optional<std::string>& target) {
  for (const vault::EnvBinding& binding : environment.bindings) {
    const vault::Secret* const secret = records.secretById(binding.secretId);
    if (secret == nullptr) continue;
    const vault::SecretVersion* const version = secret->find(binding.pinVersion.value_or(secret->currentVersion));
    if (version == nullptr || version->status == vault::VersionStatus::purged) continue;
    vault::checkDeploymentTargets({environment.deploymentTarget, target, version->allowedDeploymentTargets});
  }
}

}  // namespace sorvane::agent
