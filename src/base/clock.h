#pragma once

#include <chrono>

#include "base/system.h"

namespace sorvane::base {

/// Date is a wall-clock time with the second precision that the stored records have.
using Date = std::chrono::sys_seconds;
/// Instant is a time of a monotonic clock that also counts while the computer sleeps; setting the wall clock does not
/// move it. It is compared with other instants of the same Clock only.
using Instant = std::chrono::steady_clock::time_point;

/// Clock is where every room takes the time from, so that a test can set it. Safe from any thread.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual std::chrono::system_clock::time_point wall() const = 0;
  virtual Instant instant() const = 0;
  Date now() const { return std::chrono::floor<std::chrono::seconds>(wall()); }
};

class SystemClock final : public Clock {
 public:
  std::chrono::system_clock::time_point wall() const override { return std::chrono::system_clock::now(); }
  Instant instant() const override { return Instant(timeSinceBoot()); }
};

}  // namespace sorvane::base
