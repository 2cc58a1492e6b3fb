#pragma once

#include <chrono>

namespace sorvane::base {

/// Date is a wall-clock time with the second precision that the stored records have.
using Date = std::chrono::sys_seconds;
/// Instant is a time of a monotonic clock that counts while the process lives; setting the wall clock does not move it.
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
  Instant instant() const override { return std::chrono::steady_clock::now(); }
};

}  // namespace sorvane::base
