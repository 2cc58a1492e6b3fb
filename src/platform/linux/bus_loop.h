#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "base/descriptor.h"

namespace sdbus {
class IConnection;
}

namespace sorvane::platform {

/// BusLoop is one connection to the system bus and the loop over it, on the thread that calls `run`. Everything that
/// the connection calls is called in there.
class BusLoop {
 public:
  /// Connects. Throws sdbus::Error where there is no bus.
  BusLoop();
  ~BusLoop();
  BusLoop(const BusLoop&) = delete;
  BusLoop& operator=(const BusLoop&) = delete;

  sdbus::IConnection& connection() { return *connection_; }

  using Deadline = std::optional<std::chrono::steady_clock::time_point>;
  enum class End { done, timedOut, disconnected };
  /// Serves the connection until `isDone` says so, which is asked after every message and every `wake`.
  End run(const std::function<bool()>& isDone, const Deadline& deadline = std::nullopt);
  /// Lets `run` ask `isDone` again. Any thread.
  void wake();

 private:
  const std::unique_ptr<sdbus::IConnection> connection_;
  const base::Descriptor wakeUp_;
};

}  // namespace sorvane::platform
