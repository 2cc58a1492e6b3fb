#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "proxy/route.h"

namespace sorvane::proxy {

/// ProxyRefusal is what the proxy answers by itself. `message` is a whole sentence.
struct ProxyRefusal {
  enum class Kind {
    invalidRequest,
    authentication,
    permission,
    notFound,
    tooLarge,
    rateLimit,
    spendLimit,
    unavailable,
    upstream,
    misdirected
  };
  int status = 400;
  Kind kind = Kind::invalidRequest;
  std::string code;
  std::string message;
  std::optional<int> retryAfterSeconds;
};

/// The standard reason phrase of a status that the proxy may answer with; "" for others.
std::string_view reasonPhrase(int status);

/// The JSON body of a refusal as the route's own provider would write it.
std::string bodyOf(const ProxyRefusal& refusal, ProxyDialect dialect, std::string_view requestId);

// Refusals that more than one place gives.
namespace refusal {
ProxyRefusal rateLimited(int retryAfterSeconds);
ProxyRefusal tooManyCalls();
ProxyRefusal spendLimitReached();
ProxyRefusal invalidKey();
ProxyRefusal proxyUnavailable();
}  // namespace refusal

}  // namespace sorvane::proxy
