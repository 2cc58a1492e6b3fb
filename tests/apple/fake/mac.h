#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace sorvane::test::apple {

/// FakeMac is the system around this test program while it lives: the session's dictionary, the notices that everybody
/// hears, sleep, and the user defaults. At the end of its life every object that was made must be gone. One at a time,
/// and but for `allowed` of one thread.
class FakeMac {
 public:
  FakeMac();
  /// Fails the test when an object is left.
  ~FakeMac();
  FakeMac(const FakeMac&) = delete;
  FakeMac& operator=(const FakeMac&) = delete;

  using Value = std::variant<bool, double, std::string>;
  /// What the window server says of the session; nullopt: the process is in none.
  std::optional<std::map<std::string, Value>> session = std::map<std::string, Value>{};

  struct Preference {
    Value value;
    bool isForced = false;
  };
  std::map<std::string, std::map<std::string, Preference>> preferences;  ///< by domain and key

  /// Tells a notice to whoever asked for it. The program is not in front, so that only those hear it who want it at
  /// once.
  void post(const std::string& notice);

  bool refusesPower = false;  ///< the registration for sleep
  /// Tells about sleep whoever registered and whose source is in the loop.
  void power(std::uint32_t message, std::intptr_t number);
  /// The numbers of what was allowed, in order.
  std::vector<std::intptr_t> allowed() const;
  /// Connections to the part of the system that sleeps.
  int openConnections() const;

  bool refusesAccessControl = false;
  /// How the last one was made: its protection, then its flags.
  std::pair<std::string, unsigned long> accessControl;
};

}  // namespace sorvane::test::apple
