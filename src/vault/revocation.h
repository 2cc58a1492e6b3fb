#pragma once

#include <set>
#include <string>
#include <variant>

namespace sorvane::vault {

/// Which task sessions a change ends: those of the named environments, or all.
struct RevokeAll {
  bool operator==(const RevokeAll&) const = default;
};
struct RevokeEnvironments {
  std::set<std::string> names;
  bool operator==(const RevokeEnvironments&) const = default;
};
using Revocation = std::variant<RevokeEnvironments, RevokeAll>;

/// SessionRevoker is what the vault tells when access changed; the registry of task sessions implements it. Called
/// without the vault's observers' lock, from any thread, after the change is on disk. Must not throw.
class SessionRevoker {
 public:
  virtual ~SessionRevoker() = default;
  virtual void revoke(const Revocation& revocation) = 0;
};

}  // namespace sorvane::vault
