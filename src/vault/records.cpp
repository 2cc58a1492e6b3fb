#include "vault/records.h"

#include <algorithm>

#include "base/ids.h"

namespace sorvane::vault {

std::string_view word(DeploymentTarget target) {
  switch (target) {
    case DeploymentTarget::development:
      return "development";
    case DeploymentTarget::staging:
      return "staging";
    case DeploymentTarget::production:
      return "production";
  }
  return {};
}

std::optional<DeploymentTarget> deploymentTargetOf(std::string_view text) {
  for (const DeploymentTarget target : kDeploymentTargets) {
    if (word(target) == text) return target;
  }
  return std::nullopt;
}

std::string_view word(VersionStatus status) {
  switch (status) {
    case VersionStatus::active:
      return "active";
    case VersionStatus::retired:
      return "retired";
    case VersionStatus::purged:
      return "purged";
  }
  return {};
}

std::optional<VersionStatus> versionStatusOf(std::string_view text) {
  for (const VersionStatus status : {VersionStatus::active, VersionStatus::retired, VersionStatus::purged}) {
    if (word(status) == text) return status;
  }
  return std::nullopt;
}

const SecretVersion* Secret::find(std::int64_t version) const {
  const auto found = std::find_if(versions.begin(), versions.end(),
                                  [version](const SecretVersion& each) { return each.version == version; });
  return found == versions.end() ? nullptr : &*found;
}

const EnvBinding* Project::find(std::string_view envVarName) const {
  const auto found = std::find_if(bindings.begin(), bindings.end(),
                                  [envVarName](const EnvBinding& each) { return each.envVarName == envVarName; });
  return found == bindings.end() ? nullptr : &*found;
}

std::string_view word(RotationStatus status) {
  switch (status) {
    case RotationStatus::ok:
      return "ok";
    case RotationStatus::dueSoon:
      return "dueSoon";
    case RotationStatus::overdue:
      return "overdue";
  }
  return {};
}

std::string_view badge(RotationStatus status) {
  switch (status) {
    case RotationStatus::ok:
      return "";
    case RotationStatus::dueSoon:
      return "due soon";
    case RotationStatus::overdue:
      return "overdue";
  }
  return {};
}

RotationStatus rotationStatus(const Secret& secret, Date now, std::int64_t graceDays) {
  const SecretVersion* const current = secret.current();
  if (current == nullptr || !current->expiresAt) return RotationStatus::ok;
  if (*current->expiresAt <= now) return RotationStatus::overdue;
  // Compared in whole days, so that an expiry or a grace at the end of time cannot overflow.
  const auto left = std::chrono::ceil<std::chrono::days>(*current->expiresAt - now);
  return left.count() <= graceDays ? RotationStatus::dueSoon : RotationStatus::ok;
}

bool isVariableName(std::string_view name) {
  const auto letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
  const auto digit = [](char c) { return c >= '0' && c <= '9'; };
  return !name.empty() && letter(name.front()) &&
         std::all_of(name.begin(), name.end(), [&](char c) { return letter(c) || digit(c); });
}

std::string newSecretId() {
  return "sec_" + base::randomHexId();
}
std::string newProjectId() {
  return "proj_" + base::randomHexId();
}

}  // namespace sorvane::vault
