#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "proxy/money.h"
#include "vault/proxy_provider.h"

namespace sorvane::proxy {

using vault::ProxyProvider;
/// Exact model names, as a client writes them, by provider. A provider that is not in the map may use none.
using AllowedModels = std::map<ProxyProvider, std::vector<std::string>>;

/// ProxyLimits is what one grant may spend and do. In JSON the keys are the field names.
struct ProxyLimits {
  Micros budgetMicros = 0;
  base::Date expiresAt;                 ///< from this instant on every admission answers `closed`
  std::optional<AllowedModels> models;  ///< absent: any priced model
  int requestsPerMinute = 0;
  std::int64_t maxBodyBytes = 0;
  int maxConcurrentCalls = 0;
  int callTimeoutSeconds = 0;  ///< wall-clock limit of one upstream call
};

/// What every new grant gets beside the owner's own limits: enough for a client that works with several agents at once,
/// and the time-out that the providers' own clients have.
inline constexpr int kMaxConcurrentCalls = 8, kCallTimeoutSeconds = 600;

/// Bounds of a list of allowed models.
inline constexpr std::size_t kMostModels = 64, kMostModelNameBytes = 128;
/// 1 to kMostModelNameBytes printable ASCII characters without a space.
bool isModelName(std::string_view name);

/// ProxyDefaultLimits are the owner's limits for new grants. In JSON the keys are the field names; all but `models` are
/// required.
struct ProxyDefaultLimits {
  std::int64_t budgetCents = 500;
  std::int64_t budgetCeilingCents = 5'000;  ///< the most that an agent may ask for
  std::int64_t longestSessionSeconds = 28'800;
  std::int64_t requestsPerMinute = 120;
  std::int64_t maxBodyBytes = 33'554'432;
  std::optional<AllowedModels> models;  ///< absent: any priced model
  bool operator==(const ProxyDefaultLimits&) const = default;

  /// The sentence of the first field that is out of its range, in the order of the fields; nullopt when all are valid.
  std::optional<std::string> problem() const;
};
std::string encodeDefaultLimits(const ProxyDefaultLimits& limits);
/// nullopt when the text is not one object with these keys and types; the ranges are `problem`'s.
std::optional<ProxyDefaultLimits> decodeDefaultLimits(std::string_view json);

}  // namespace sorvane::proxy
