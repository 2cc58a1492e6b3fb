#pragma once

#include <string>

#include "proxy/forward_request.h"
#include "proxy/transport.h"

namespace sorvane::proxy {

/// Where each provider is reached. No option, variable or file changes it; a composition root of the tests may.
struct ProxyOrigins {
  std::string anthropic = "https://api.anthropic.com";
  std::string openai = "https://api.openai.com";
  std::string openrouter = "https://openrouter.ai";

  const std::string& of(ProxyProvider provider) const;
};

/// A query that goes on to Anthropic, whose clients mark beta calls with it, is at most so long.
inline constexpr std::size_t kMostQueryBytes = 128;

/// Builds the provider's request from the fields of a checked one; none of the client's other bytes go on. `body` is
/// referred to.
UpstreamRequest upstreamRequestOf(const ProxyForwardRequest& request, const ProxyCredential& credential,
                                  const ProxyOrigins& origins, std::string_view body);

}  // namespace sorvane::proxy
