#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/clock.h"
#include "base/mutex.h"
#include "base/secret_text.h"
#include "crypto/digest.h"
#include "proxy/limits.h"

namespace sorvane::proxy {

/// ProxyCredential is the real key of one provider. `value` is never logged and never written to a file.
struct ProxyCredential {
  ProxyProvider provider = ProxyProvider::anthropic;
  std::string secretId;
  std::int64_t version = 0;
  base::SecretText value;
};

/// ProxyGrant is what a token stands for. Immutable once issued; shared by the calls that run under it.
struct ProxyGrant {
  std::string lookupId;                ///< 16 lower-case base32 characters, the public half of the token
  crypto::Sha256Digest tokenDigest{};  ///< of the whole token's text; the token itself is kept nowhere
  std::optional<std::string> taskSessionId;
  std::optional<std::string> runId;
  std::string environment;  ///< the environment's id
  std::string client;
  std::map<ProxyProvider, ProxyCredential> credentials;
  ProxyLimits limits;
  base::Date createdAt;
};

/// ProxyGrantStore is what the server asks about a presented token.
class ProxyGrantStore {
 public:
  virtual ~ProxyGrantStore() = default;
  /// The live grant of this token, or nullptr; why there is none is not told. Any thread, never blocks on anything but
  /// a short lock.
  virtual std::shared_ptr<const ProxyGrant> lookUp(std::string_view token) const = 0;
};

}  // namespace sorvane::proxy
