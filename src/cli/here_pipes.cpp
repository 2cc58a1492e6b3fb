#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "base/descriptor.h"
#include "cli/here_loops.h"
#include "cli/masked_output.h"
#include "cli/session.h"
#include "cli/signal_pipe.h"

namespace sorvane::cli {
namespace {

struct Pipe {
  base::Descriptor out, in;
  Pipe() {
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) {
      throw Failure(kFailed, "no_pipe",
                    "The system gave no pipe for the command's output, so nothing was run. Close some programs.");
    }
    out.reset(ends[0]);
    in.reset(ends[1]);
    for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  }
};

pid_t start(const ChildCommand& command, const Pipe& output, const Pipe& errors, const Pipe& failure,
            SignalsBlocked& signals) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(output.in.get(), STDOUT_FILENO);
    ::dup2(errors.in.get(), STDERR_FILENO);
    signals.release();
    const int error = become(command);
    [[maybe_unused]] const auto written = ::write(failure.in.get(), &error, sizeof error);
    ::_exit(127);
  }
  return child;
}

/// Passes on what other processes sent; what the terminal sent has reached the command as well, which is in our group.
/// Returns the command's status once it has ended.
std::optional<int> handleSignals(SignalPipe& signals, pid_t child) {
  std::optional<int> ended;
  while (const auto caught = signals.next()) {
    int status = 0;
    if (caught->number != SIGCHLD) {
      if (caught->fromProcess) ::kill(child, caught->number);
    } else if (::waitpid(child, &status, WNOHANG) == child) {
      ended = status;
    }
  }
  return ended;
}

int pass(SignalPipe& signals, pid_t child, std::array<MaskedOutput, 2>& outputs,
         std::array<base::Descriptor, 2>& ends) {
  for (;;) {
    std::array<pollfd, 3> waits{pollfd{signals.descriptor(), POLLIN, 0}, pollfd{outputs[0].from(), POLLIN, 0},
                                pollfd{outputs[1].from(), POLLIN, 0}};
    int timeout = -1;
    for (const MaskedOutput& output : outputs) {
      if (const auto due = output.waits()) timeout = timeout < 0 ? *due : std::min(timeout, *due);
    }
    if (::poll(waits.data(), waits.size(), timeout) < 0 && errno != EINTR) return kFailed;
    for (std::size_t i = 0; i < outputs.size(); ++i) {
      if (waits[i + 1].revents != 0 && outputs[i].from() >= 0) outputs[i].pump();
      outputs[i].pauseIfDue();
      if (!outputs[i].readerIsGone() || !ends[i]) continue;
      outputs[i].stop();
      ends[i].reset();  // the command's next write tells it
    }
    if (waits[0].revents == 0) continue;
    if (const auto status = handleSignals(signals, child)) {
      for (MaskedOutput& output : outputs) output.finish();
      return exitCodeOf(*status);
    }
  }
}

}  // namespace

int runOnPipes(const ChildCommand& command, const agent::Masker& masker) {
  Pipe output, errors, failure;
  SignalsBlocked blocked;
  const pid_t child = start(command, output, errors, failure, blocked);
  if (child < 0) failToStart(command, errno);
  SignalPipe signals({SIGCHLD, SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2});
  blocked.release();
  command.environment.forget();
  for (Pipe* const pipe : {&output, &errors, &failure}) pipe->in.reset();
  int error = 0;
  ssize_t told = 0;
  while ((told = ::read(failure.out.get(), &error, sizeof error)) < 0 && errno == EINTR) {
  }
  if (told == static_cast<ssize_t>(sizeof error)) failToStart(command, error);
  std::array<base::Descriptor, 2> ends{std::move(output.out), std::move(errors.out)};
  for (const base::Descriptor& end : ends) neverWait(end.get());
  std::array<MaskedOutput, 2> outputs{MaskedOutput(ends[0].get(), STDOUT_FILENO, masker),
                                      MaskedOutput(ends[1].get(), STDERR_FILENO, masker)};
  return pass(signals, child, outputs, ends);
}

}  // namespace sorvane::cli
