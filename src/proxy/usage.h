#pragma once

#include <cstdint>
#include <optional>

#include "proxy/money.h"

namespace sorvane::proxy {

/// ProxyUsage is what a provider reported for one call. The classes of tokens do not overlap: `inputTokens` excludes
/// what was read from or written to a cache. Fields that a provider does not report are 0.
struct ProxyUsage {
  std::int64_t inputTokens = 0;
  std::int64_t cacheReadTokens = 0;
  std::int64_t cacheWrite5mTokens = 0, cacheWrite1hTokens = 0, cacheWrite30mTokens = 0, cacheWrite12hTokens = 0;
  std::int64_t outputTokens = 0;  ///< reasoning included
  std::int64_t webSearches = 0;
  std::optional<Micros> reportedMicros;  ///< the cost that the provider itself tells (OpenRouter)
  bool operator==(const ProxyUsage&) const = default;
};

}  // namespace sorvane::proxy
