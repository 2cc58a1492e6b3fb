#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sorvane::phone {

/// What the owner is asked, as it is shown on the second device. It never holds a value of a secret.
struct ApprovalDetails {
  /// Stored and sent as the name of the case.
  enum class Kind { useEnvironment, readSecret, unlock, other, taskSession };
  Kind kind = Kind::other;
  std::string reason;
  std::string requestor;
  std::optional<std::string> subject;
  std::optional<std::int64_t> version;
  std::optional<std::vector<std::string>> allowedTargets;
  std::optional<std::string> declaredTarget;
  bool operator==(const ApprovalDetails&) const = default;
};

}  // namespace sorvane::phone
