#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "base/secret_text.h"

namespace sorvane::agent {

/// GrantsError carries a sentence shown as it stands.
class GrantsError : public base::Error {
 public:
  using Error::Error;
};

/// The standing permission of one agent client. Only the token's hash is kept.
struct ClientGrant {
  std::string id;
  std::string tokenHash;  ///< SHA-256 of the token's bytes, 64 lower-case hexadecimal digits
  std::string label;
  /// Scope: the name of the one environment it may use. The empty text, which no environment can bear, means that its
  /// environment was deleted and the owner has not chosen another.
  std::optional<std::string> environment;
  bool allowReveal = false;
  bool autoApprove = false;
  bool operator==(const ClientGrant&) const = default;
};

/// SHA-256 of the exact bytes as 64 lower-case hexadecimal digits.
std::string tokenHash(std::string_view token);

std::string encodeGrants(const std::vector<ClientGrant>& grants);

}  // namespace sorvane::agent
