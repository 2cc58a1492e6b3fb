#pragma once

#include <cstdint>
#include <limits>
#include <string>

namespace sorvane::proxy {

/// Money in micro-dollars; one cent is 10,000 of them.
using Micros = std::int64_t;
inline constexpr Micros kMicrosPerCent = 10'000, kMicrosPerDollar = 1'000'000;
inline constexpr Micros kMostMicros = std::numeric_limits<Micros>::max();
/// The most that one call is charged.
inline constexpr Micros kMostChargeMicros = 10'000'000'000'000;

/// Both must not be negative; the sum stays at kMostMicros where it would pass it.
constexpr Micros addSaturating(Micros left, Micros right) {
  return left > kMostMicros - right ? kMostMicros : left + right;
}
constexpr Micros multiplySaturating(Micros left, Micros right) {
  return right != 0 && left > kMostMicros / right ? kMostMicros : left * right;
}
/// Rounded up, as spend is shown.
constexpr std::int64_t centsOf(Micros micros) {
  return micros / kMicrosPerCent + (micros % kMicrosPerCent > 0 ? 1 : 0);
}
/// As people read it: "$5.00".
std::string dollarsOf(std::int64_t cents);

}  // namespace sorvane::proxy
