#include "cli/pseudo_terminal.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

#include "cli/masked_output.h"
#include "cli/session.h"

namespace sorvane::cli {
namespace {

using Report = PseudoTerminal::Report;

Failure noTerminal() {
  return {kFailed, "no_terminal",
          "The system gave no terminal for the command, so nothing was run. Close some programs, or use --no-mask."};
}

void report(int to, Report::Kind kind, int number) {
  const Report report{kind, number};
  [[maybe_unused]] const auto written = ::write(to, &report, sizeof report);
}

/// In the process that becomes the command: its group comes to the foreground before it runs.
[[noreturn]] void runCommand(const ChildCommand& command, int reports, SignalsBlocked& signals) {
  ::setpgid(0, 0);
  ::tcsetpgrp(STDIN_FILENO, ::getpid());  // SIGTTOU is blocked, and a blocked one does not stop
  signals.release();
  report(reports, Report::Kind::failed, become(command));
  ::_exit(127);
}

/// In the process that leads the session: starts the command, reports on it, and stays until the other end of `hold` is
/// closed, because the terminal hangs up with the leader.
[[noreturn]] void watch(const ChildCommand& command, int reports, int hold, SignalsBlocked& signals) {
  const pid_t child = ::fork();
  if (child == 0) runCommand(command, reports, signals);
  if (child < 0) {
    report(reports, Report::Kind::failed, errno);
    ::_exit(127);
  }
  command.environment.forget();
  ::setpgid(child, child);
  // What is typed reaches the command's group alone, but programs may send to every process of a session.
  for (const int number : {SIGINT, SIGQUIT, SIGTSTP, SIGTTIN, SIGTTOU}) ::signal(number, SIG_IGN);
  signals.release();
  report(reports, Report::Kind::started, child);
  for (int status = 0;;) {
    if (::waitpid(child, &status, WUNTRACED) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (!WIFSTOPPED(status)) {
      report(reports, Report::Kind::ended, status);
      break;
    }
    report(reports, Report::Kind::stopped, WSTOPSIG(status));
  }
  char none;
  while (::read(hold, &none, 1) < 0 && errno == EINTR) {
  }
  ::_exit(0);
}

struct Pipe {
  base::Descriptor out, in;
  Pipe() {
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) throw noTerminal();
    out.reset(ends[0]);
    in.reset(ends[1]);
    for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  }
};

}  // namespace

RawTerminal::RawTerminal(int terminal) : terminal_(terminal) {
  ::tcgetattr(terminal_, &before_);
}

void RawTerminal::makeRaw() {
  termios raw = before_;
  ::cfmakeraw(&raw);
  while (::tcsetattr(terminal_, TCSADRAIN, &raw) != 0 && errno == EINTR) {
  }
  raw_ = true;
}

void RawTerminal::restore() {
  if (!raw_) return;
  while (::tcsetattr(terminal_, TCSADRAIN, &before_) != 0 && errno == EINTR) {
  }
  raw_ = false;
}

void RawTerminal::copySizeTo(int other) const {
  winsize size{};
  if (::ioctl(terminal_, TIOCGWINSZ, &size) == 0) ::ioctl(other, TIOCSWINSZ, &size);
}

PseudoTerminal::PseudoTerminal(const RawTerminal& outer, int errors, const ChildCommand& command,
                               SignalsBlocked& signals) {
  master_.reset(::posix_openpt(O_RDWR | O_NOCTTY));
  const char* const name =
      !master_ || ::grantpt(master_.get()) != 0 || ::unlockpt(master_.get()) != 0 ? nullptr : ::ptsname(master_.get());
  if (name == nullptr) throw noTerminal();
  ::fcntl(master_.get(), F_SETFD, FD_CLOEXEC);
  neverWait(master_.get());
  const base::Descriptor slave(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!slave) throw noTerminal();
  ::tcsetattr(slave.get(), TCSANOW, &outer.modesBefore());
  outer.copySizeTo(master_.get());
  Pipe reports, hold;
  watcher_ = ::fork();
  if (watcher_ < 0) throw noTerminal();
  if (watcher_ == 0) {
    ::setsid();
    ::ioctl(slave.get(), TIOCSCTTY, 0);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
      ::dup2(standard == STDERR_FILENO && errors >= 0 ? errors : slave.get(), standard);
    master_.reset();
    hold.in.reset();
    watch(command, reports.in.get(), hold.out.get(), signals);
  }
  reports_ = std::move(reports.out);
  hold_ = std::move(hold.in);
}

PseudoTerminal::~PseudoTerminal() {
  hold_.reset();
  master_.reset();
  while (::waitpid(watcher_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

std::optional<PseudoTerminal::Report> PseudoTerminal::nextReport() {
  Report report{};
  ssize_t got = 0;
  while ((got = ::read(reports_.get(), &report, sizeof report)) < 0 && errno == EINTR) {
  }
  if (got != static_cast<ssize_t>(sizeof report)) return std::nullopt;
  return report;
}

}  // namespace sorvane::cli
