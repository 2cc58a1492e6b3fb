#pragma once

#include <signal.h>

#include <initializer_list>
#include <optional>
#include <utility>
#include <vector>

namespace sorvane::cli {

/// All signals wait for as long as this lives, or until `release`.
class SignalsBlocked {
 public:
  SignalsBlocked();
  ~SignalsBlocked() { release(); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  void release();

 private:
  sigset_t before_{};
};

/// SignalPipe turns signals into bytes that a loop can wait for. One at a time in a process; the earlier actions come
/// back with its end. SIGPIPE is ignored meanwhile.
class SignalPipe {
 public:
  struct Caught {
    int number;
    bool fromProcess;  ///< sent by a process, not by the terminal or the system
  };

  explicit SignalPipe(std::initializer_list<int> numbers);
  ~SignalPipe();
  SignalPipe(const SignalPipe&) = delete;
  SignalPipe& operator=(const SignalPipe&) = delete;

  int descriptor() const;
  std::optional<Caught> next();

 private:
  std::vector<std::pair<int, struct sigaction>> before_;
};

}  // namespace sorvane::cli
