#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/secret_text.h"

namespace sorvane::agent {

/// LaunchError carries the system's description of why a process could not be started.
class LaunchError : public base::Error {
 public:
  using Error::Error;
};

struct LaunchSpec {
  std::vector<std::string> words;             ///< handed to /usr/bin/env as its arguments
  std::vector<base::SecretText> environment;  ///< "NAME=value", complete
  std::string directory;
};

/// HostedProcess is a started command in a process group of its own, with its standard output and error joined in one
/// pipe.
class HostedProcess {
 public:
  virtual ~HostedProcess() = default;
  virtual pid_t group() const = 0;
  /// Read end of the output; owned by this object.
  virtual int output() const = 0;
  /// Becomes readable when the command itself (not what it left behind) has ended; owned by this object.
  virtual int ended() const = 0;
  /// The termination status, 128 + n for signal n. Blocks until the command has ended.
  virtual std::int32_t wait() = 0;
  /// Signals the whole process group. Nothing happens once the command was waited for and its group is gone.
  virtual void signal(int number) = 0;
  /// Ends what the command left running: SIGTERM, two seconds later SIGKILL, until none of its descendants is left.
  /// Does not block.
  virtual void clear() = 0;
};

/// ProcessHost starts commands so that nothing of this process reaches them but what the launch names: no descriptor,
/// no variable, no memory. Descendants that outlive a command can be found and ended. Any thread.
class ProcessHost {
 public:
  virtual ~ProcessHost() = default;
  virtual std::unique_ptr<HostedProcess> launch(const LaunchSpec& spec) = 0;
};

}  // namespace sorvane::agent
