#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "proxy/limits.h"

namespace sorvane::proxy {

/// ProxyOptions are the owner's settings of the proxy, kept sealed with the protected keys.
struct ProxyOptions {
  ProxyDefaultLimits limits;
  bool refuseUnknownFields = false;  ///< a body field that no table knows is refused
  /// A grant that is charged more than this within a minute pauses until the owner lets it go on; absent: no such stop.
  std::optional<std::int64_t> velocityCentsPerMinute;
  std::optional<std::string> authorityPem;   ///< a certificate authority trusted beside the system's, as PEM
  std::optional<std::string> outboundProxy;  ///< "http://host:port" that providers are reached through
  bool operator==(const ProxyOptions&) const = default;
};
std::string encodeOptions(const ProxyOptions& options);
/// nullopt when the text is not one object with the keys and types of the options. An empty text is the options of a
/// fresh installation.
std::optional<ProxyOptions> decodeOptions(std::string_view json);

}  // namespace sorvane::proxy
