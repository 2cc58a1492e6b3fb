#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace sorvane::agent {

/// Variables of a render that hold no value of the vault: they are shown to the client whose they are, whether raw
/// values are on or off.
struct StandInNames {
  std::vector<std::string> keys;      ///< a stand-in each
  std::vector<std::string> baseUrls;  ///< the proxy's address, no secret at all
  bool isStandIn(std::string_view name) const;
  bool isBaseUrl(std::string_view name) const;
};

}  // namespace sorvane::agent
