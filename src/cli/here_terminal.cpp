#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "cli/here_loops.h"
#include "cli/masked_output.h"
#include "cli/pseudo_terminal.h"
#include "cli/session.h"
#include "cli/signal_pipe.h"

namespace sorvane::cli {
namespace {

/// The read end of a pipe for a standard error that is no terminal, and the write end for the command.
struct ErrorPipe {
  base::Descriptor out, in;
  ErrorPipe() {
    std::array<int, 2> ends{};
    if (::isatty(STDERR_FILENO) != 0 || ::pipe(ends.data()) != 0) return;
    out.reset(ends[0]);
    in.reset(ends[1]);
    for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
    neverWait(out.get());
  }
};

/// The terminal of the person, the command's terminal, and what goes to and fro.
class Relay {
 public:
  Relay(const ChildCommand& command, const agent::Masker& masker, RawTerminal& outer, ErrorPipe& errors,
        PseudoTerminal& inner, SignalPipe& signals)
      : command_(command),
        outer_(outer),
        inner_(inner),
        signals_(signals),
        output_(inner.master(), STDOUT_FILENO, masker),
        errors_(errors.out.get(), STDERR_FILENO, masker) {}

  int run() {
    while (!exitCode_) {
      const bool typing = stdinOpen_ && typed_.empty();
      std::array<pollfd, 5> waits{
          pollfd{signals_.descriptor(), POLLIN, 0}, pollfd{inner_.reports(), POLLIN, 0},
          pollfd{typing ? STDIN_FILENO : -1, POLLIN, 0},
          pollfd{output_.from(), static_cast<short>(typed_.empty() ? POLLIN : POLLIN | POLLOUT), 0},
          pollfd{errors_.from(), POLLIN, 0}};
      if (::poll(waits.data(), waits.size(), timeout()) < 0 && errno != EINTR) return kFailed;
      if (waits[2].revents != 0) readTyped();
      if (!typed_.empty()) writeTyped();
      if ((waits[3].revents & ~POLLOUT) != 0) output_.pump();
      if (waits[4].revents != 0) errors_.pump();
      for (MaskedOutput* const output : {&output_, &errors_}) output->pauseIfDue();
      if (waits[0].revents != 0) handleSignals();
      if (waits[1].revents != 0) handleReport();
    }
    return *exitCode_;
  }

 private:
  int timeout() const {
    const auto first = output_.waits(), second = errors_.waits();
    if (!first || !second) return first.value_or(second.value_or(-1));
    return std::min(*first, *second);
  }

  void readTyped() {
    std::array<char, 4096> piece;
    const ssize_t got = ::read(STDIN_FILENO, piece.data(), piece.size());
    if (got > 0)
      typed_.append({piece.data(), static_cast<std::size_t>(got)});
    else if (got == 0 || (errno != EINTR && errno != EAGAIN))
      stdinOpen_ = false;
    base::wipe(piece.data(), piece.size());
  }

  void writeTyped() {
    const std::string_view text = typed_.view();
    const ssize_t written = ::write(inner_.master(), text.data(), text.size());
    if (written < 0 && (errno == EAGAIN || errno == EINTR)) return;
    // Nobody has the terminal open any more: what was typed is for nobody.
    base::SecretText rest(written < 0 ? std::string_view() : text.substr(static_cast<std::size_t>(written)));
    typed_ = std::move(rest);
  }

  void sendToCommand(int number) {
    if (group_ > 0) ::kill(-group_, number);
  }

  void handleSignals() {
    while (const auto caught = signals_.next()) {
      if (caught->number == SIGWINCH) {
        outer_.copySizeTo(inner_.master());
      } else if (caught->number == SIGCONT) {
        outer_.makeRaw();
        outer_.copySizeTo(inner_.master());
      } else {
        sendToCommand(caught->number);
        // The person's terminal is gone, and the command's goes with this process.
        if (caught->number == SIGHUP) exitCode_ = 128 + SIGHUP;
      }
    }
  }

  void handleReport() {
    const auto report = inner_.nextReport();
    if (!report) {
      exitCode_ = exitCode_.value_or(128 + SIGKILL);
      return;
    }
    using Kind = PseudoTerminal::Report::Kind;
    switch (report->kind) {
      case Kind::started:
        group_ = report->number;
        break;
      case Kind::failed:
        outer_.restore();
        failToStart(command_, report->number);
      case Kind::stopped:
        output_.pump();
        stopToo();
        break;
      case Kind::ended:
        output_.finish();
        if (errors_.from() >= 0) errors_.finish();
        exitCode_ = exitCodeOf(report->number);
        break;
    }
  }

  /// Stops this process's group as the terminal would, and goes on with the command when a shell goes on with us. In a
  /// group that nothing could continue the system does not stop us, and the command goes on at once.
  void stopToo() {
    outer_.restore();
    struct sigaction standard {
    }, before{};
    standard.sa_handler = SIG_DFL;
    ::sigaction(SIGTSTP, &standard, &before);
    ::kill(0, SIGTSTP);
    ::sigaction(SIGTSTP, &before, nullptr);
    outer_.makeRaw();
    outer_.copySizeTo(inner_.master());
    sendToCommand(SIGCONT);
  }

  const ChildCommand& command_;
  RawTerminal& outer_;
  PseudoTerminal& inner_;
  SignalPipe& signals_;
  MaskedOutput output_, errors_;
  base::SecretText typed_;
  bool stdinOpen_ = true;
  pid_t group_ = 0;
  std::optional<int> exitCode_;
};

}  // namespace

int runOnTerminal(const ChildCommand& command, const agent::Masker& masker) {
  RawTerminal outer(STDIN_FILENO);
  ErrorPipe errors;
  SignalsBlocked blocked;
  PseudoTerminal inner(outer, errors.in.get(), command, blocked);
  SignalPipe signals({SIGWINCH, SIGCONT, SIGTSTP, SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2});
  blocked.release();
  command.environment.forget();
  errors.in.reset();
  outer.makeRaw();
  return Relay(command, masker, outer, errors, inner, signals).run();
}

}  // namespace sorvane::cli
