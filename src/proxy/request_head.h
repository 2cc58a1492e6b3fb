#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sorvane::proxy {

struct ProxyHeader {
  std::string name;  ///< as it came
  std::string value;
};

/// ProxyRequestHead is a request's head that passed the strict reader.
struct ProxyRequestHead {
  std::string method;
  std::string path;
  std::optional<std::string> query;
  std::vector<ProxyHeader> headers;  ///< in arrival order; names are compared without regard to case
  std::optional<std::int64_t> contentLength;

  /// The first header of that name (in lower case), or nullptr.
  const std::string* header(std::string_view lowerName) const;
};

}  // namespace sorvane::proxy
