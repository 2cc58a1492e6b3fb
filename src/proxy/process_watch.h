#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>

namespace sorvane::proxy {

/// ProcessWatch tells when processes of others end. Any thread.
class ProcessWatch {
 public:
  enum class State { watching, gone, impossible };
  struct Watched {
    State state = State::impossible;
    std::uint64_t token = 0;  ///< for `forget`, while watching
  };

  virtual ~ProcessWatch() = default;
  /// Calls `ended` once, on the watch's own thread, when the process has ended. `ended` must not throw. `gone`: there
  /// is no such process now; `impossible`: the system cannot watch it, and `ended` is never called.
  virtual Watched watch(pid_t process, std::function<void()> ended) = 0;
  /// `ended` is not called any more when this returns, and none is running unless it is the caller itself. Unknown
  /// tokens do nothing.
  virtual void forget(std::uint64_t token) = 0;
};

}  // namespace sorvane::proxy
