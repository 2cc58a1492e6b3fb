#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sorvane::phone {

/// Announcer tells the local network where the link is served ("_sorvane._tcp" over multicast DNS). Any thread.
class Announcer {
 public:
  virtual ~Announcer() = default;
  /// Announces; replaces what was announced before. `records` are the service's text records, "key=value" each. A name
  /// that is taken is made another by the system. Does not block for long. Returns why nothing is announced, as a
  /// sentence that says what to do instead; nullopt: it is on its way.
  virtual std::optional<std::string> announce(const std::string& name, std::uint16_t port,
                                              const std::vector<std::string>& records) = 0;
  virtual void withdraw() = 0;
};

}  // namespace sorvane::phone
