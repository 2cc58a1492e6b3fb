#pragma once

#include <sys/types.h>
#include <termios.h>

#include <optional>

#include "base/descriptor.h"
#include "cli/child_command.h"
#include "cli/signal_pipe.h"

namespace sorvane::cli {

/// The terminal that a person sits at: raw for as long as this lives, as it was before afterwards.
class RawTerminal {
 public:
  explicit RawTerminal(int terminal);
  ~RawTerminal() { restore(); }
  RawTerminal(const RawTerminal&) = delete;
  RawTerminal& operator=(const RawTerminal&) = delete;

  void makeRaw();
  void restore();
  /// Gives another terminal this one's size.
  void copySizeTo(int other) const;
  const termios& modesBefore() const { return before_; }

 private:
  const int terminal_;
  termios before_{};
  bool raw_ = false;
};

/// A command on a pseudo-terminal that is the controlling terminal of a session of its own. A small process leads that
/// session and watches the command, which is in a process group in the foreground: a command that led the session
/// itself could not be stopped by Ctrl-Z.
class PseudoTerminal {
 public:
  struct Report {
    enum class Kind { started, failed, stopped, ended } kind;
    int number;  ///< the command's process id; errno; the signal; the status of waitpid
  };

  /// Throws Failure when the system gives no pseudo-terminal or process. `errors` is where the command's standard error
  /// goes; -1: the pseudo-terminal too. The command starts with `signals` released.
  PseudoTerminal(const RawTerminal& outer, int errors, const ChildCommand& command, SignalsBlocked& signals);
  /// What still runs in the session gets SIGHUP.
  ~PseudoTerminal();

  /// Reading gives the output, writing types; neither waits.
  int master() const { return master_.get(); }
  /// Readable when there is a report.
  int reports() const { return reports_.get(); }
  /// nullopt: the watching process is gone.
  std::optional<Report> nextReport();

 private:
  base::Descriptor master_, reports_, hold_;
  pid_t watcher_ = -1;
};

}  // namespace sorvane::cli
