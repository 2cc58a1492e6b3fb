#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "base/secret_text.h"

namespace sorvane::vault {

using base::Date;

/// Where a value may be used. The stored words are the names of the cases; choices are offered in this order.
enum class DeploymentTarget { development, staging, production };
inline constexpr DeploymentTarget kDeploymentTargets[] = {DeploymentTarget::development, DeploymentTarget::staging,
                                                          DeploymentTarget::production};
std::string_view word(DeploymentTarget target);
std::optional<DeploymentTarget> deploymentTargetOf(std::string_view word);

/// A purged version keeps its row, but its value is gone for good.
enum class VersionStatus { active, retired, purged };
std::string_view word(VersionStatus status);
std::optional<VersionStatus> versionStatusOf(std::string_view word);

/// One value generation of a secret. Holds no value.
struct SecretVersion {
  std::int64_t version = 1;  ///< never reused, also after a purge
  std::optional<std::string> label;
  Date createdAt;
  std::optional<Date> expiresAt;
  std::optional<Date> retiredAt;
  VersionStatus status = VersionStatus::active;
  /// Raw words of DeploymentTarget; absent means unrestricted.
  std::optional<std::vector<std::string>> allowedDeploymentTargets;
  bool operator==(const SecretVersion&) const = default;
};

struct Secret {
  std::string id;  ///< "sec_" and 32 lower-case hexadecimal digits
  std::string name;
  std::string description;
  std::vector<std::string> tags;
  std::optional<std::string> icon;
  bool isFavorite = false;
  std::vector<SecretVersion> versions;  ///< ascending
  std::int64_t currentVersion = 1;
  Date createdAt;
  Date updatedAt;
  bool operator==(const Secret&) const = default;

  /// nullptr when there is no such version.
  const SecretVersion* find(std::int64_t version) const;
  const SecretVersion* current() const { return find(currentVersion); }
};

/// One variable of an environment.
struct EnvBinding {
  std::string envVarName;
  std::string secretId;
  std::optional<std::int64_t> pinVersion;
  std::optional<bool> allowsRunControl;
  bool operator==(const EnvBinding&) const = default;
};

/// An environment: variable names bound to secrets, in the order the owner arranged them.
struct Project {
  std::string id;  ///< "proj_" and 32 lower-case hexadecimal digits
  std::string name;
  std::string description;
  std::optional<std::string> rootPath;
  std::vector<EnvBinding> bindings;
  std::optional<std::string> deploymentTarget;  ///< raw word; absent means unclassified
  Date createdAt;
  Date updatedAt;
  bool operator==(const Project&) const = default;

  const EnvBinding* find(std::string_view envVarName) const;
};

/// One line of the access log.
struct AccessEvent {
  std::string id;  ///< upper-case UUID
  std::string actor;
  std::string tool;
  std::optional<std::string> secretId;
  std::optional<std::string> projectId;
  std::optional<std::int64_t> version;
  Date at;
  std::string source;
  std::optional<std::string> requestor;
  std::optional<std::string> cloudWorkspace;
  bool operator==(const AccessEvent&) const = default;
};

/// One value that leaves under a variable's name.
struct DeliveredVersion {
  std::string variable;
  std::string secretId;
  std::int64_t version = 0;
};

struct RevealResult {
  std::string secretId;
  std::string name;
  std::int64_t version = 0;
  base::SecretText value;
};

/// The lines hold values; they are wiped with the record.
struct RenderResult {
  std::vector<base::SecretText> lines;
  std::vector<std::string> warnings;
  std::vector<std::string> missing;
};

struct VaultGcReport {
  std::int64_t purgedSwept = 0;
  std::vector<std::string> missingValues;
  bool operator==(const VaultGcReport&) const = default;
};

/// Shown beside a secret as "due soon" or "overdue".
enum class RotationStatus { ok, dueSoon, overdue };
std::string_view word(RotationStatus status);
/// "" for ok.
std::string_view badge(RotationStatus status);
/// Decided by the current version's expiry: overdue when it has passed, dueSoon within `graceDays` days from `now`.
RotationStatus rotationStatus(const Secret& secret, Date now, std::int64_t graceDays);

/// Whether a text is a variable name: "^[A-Za-z_][A-Za-z0-9_]*$".
bool isVariableName(std::string_view name);

std::string newSecretId();
std::string newProjectId();

}  // namespace sorvane::vault
