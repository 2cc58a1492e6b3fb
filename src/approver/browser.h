#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace sorvane::approver {

/// Browser looks for a computer in the local network, by what it announces over multicast DNS ("_sorvane._tcp"). Used
/// by one thread.
class Browser {
 public:
  virtual ~Browser() = default;
  struct Found {
    std::string host;  ///< an address, with its link's scope where it needs one
    std::uint16_t port = 0;
  };
  /// Every address of the service whose text record is "id=" and this, found until `limit` has passed or `isStopped`
  /// says so, which is asked several times a second. Ends early once one is found. Empty where nothing can be looked
  /// for. Does not throw. Whoever answers is no more trusted than before: the link proves who it is.
  virtual std::vector<Found> find(std::string_view id, std::chrono::milliseconds limit,
                                  const std::function<bool()>& isStopped) = 0;
};

}  // namespace sorvane::approver
