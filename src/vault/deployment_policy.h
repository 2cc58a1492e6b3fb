#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "vault/records.h"

namespace sorvane::vault {

class DeploymentPolicyError : public base::Error {
 public:
  enum class Case {
    invalidTarget,
    invalidPolicy,
    unclassifiedEnvironment,
    missingTarget,
    targetMismatch,
    unclassifiedVersion,
    versionNotAllowed,
    providerModeMismatch
  };
  explicit DeploymentPolicyError(Case kind);
  Case kind() const { return kind_; }

 private:
  Case kind_;
};

/// What a request declares about where values go. All words are raw, as stored or as sent.
struct DeploymentQuestion {
  const std::optional<std::string>& environmentTarget;
  const std::optional<std::string>& requestedTarget;
  const std::optional<std::vector<std::string>>& allowedTargets;
};

/// Decides whether a value may leave; throws DeploymentPolicyError with the first rule that is broken. `value` is
/// looked at for the mode of a provider key only.
void checkDeployment(const DeploymentQuestion& question, std::string_view value);

/// The rules that need no value: everything but the provider key's mode. Checked before a value is read from the store.
void checkDeploymentTargets(const DeploymentQuestion& question);

enum class ProviderKeyMode { none, test, live };
/// none unless the whole value is (sk|rk|pk)_(test|live)_ and 16 or more letters and digits.
ProviderKeyMode providerKeyMode(std::string_view value);

/// Entry rules for the targets of a new version: throws VaultError with the sentence when the value's mode does not fit
/// them.
void checkTargetsAtEntry(const std::optional<std::vector<std::string>>& targets, std::string_view value);

/// Reads words given by an agent or on the command line; throws VaultError "Choose one or more of development, staging,
/// production." for an empty list or any other word. The result is in the order of the enumeration, each once.
std::vector<std::string> parseTargets(const std::vector<std::string>& words);

/// ". This ends task sessions in the 1 environment that uses this version" and its siblings.
std::string sessionsEndedNote(std::size_t environments);

}  // namespace sorvane::vault
