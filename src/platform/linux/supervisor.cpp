#include "platform/linux/supervisor.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "platform/shared/command_channel.h"

namespace sorvane::platform {
namespace {

/// In the child: a process as a shell would start it, then the command. Only returns with an errno.
int becomeCommand(const Launch& launch, int output) {
  ::setpgid(0, 0);
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  for (int number = 1; number < NSIG; ++number) ::signal(number, SIG_DFL);
  if (::chdir(launch.directory) != 0) return errno;
  // Above the three standard ones: where the application was started with one of them closed, the pipe may have its
  // number, and would be overwritten or keep its close-on-exec mark.
  output = ::fcntl(output, F_DUPFD_CLOEXEC, 3);
  if (output < 0) return errno;
  const int input = ::open("/dev/null", O_RDONLY);
  if (input < 0 || ::dup2(input, 0) < 0 || ::dup2(output, 1) < 0 || ::dup2(output, 2) < 0) return errno;
  ::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
  ::execve("/usr/bin/env", launch.words.data(), launch.environment.data());
  return errno;
}

/// Starts the command; fills `pid`. The answer is 0 or the errno of what failed in the child.
int start(const Launch& launch, int output, pid_t& pid) {
  std::array<int, 2> report{};
  if (::pipe2(report.data(), O_CLOEXEC) != 0) return errno;
  // vfork: the child has no memory of its own to copy, and we wait until it has become the command or has failed. What
  // failed comes through a pipe, which closes by itself when the child becomes the command.
  pid = ::vfork();
  if (pid == 0) {
    const int number = becomeCommand(launch, output);
    [[maybe_unused]] const auto told = ::write(report[1], &number, sizeof number);
    ::_exit(127);
  }
  int failure = pid < 0 ? errno : 0;
  ::close(report[1]);
  if (pid > 0 && ::read(report[0], &failure, sizeof failure) == static_cast<ssize_t>(sizeof failure)) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    pid = -1;
  }
  ::close(report[0]);
  return failure;
}

/// Every descendant of `pid`, itself left out. All of them hang below us, since we adopt orphans.
void collectDescendants(pid_t pid, std::vector<pid_t>& found) {
  const std::string folder = "/proc/" + std::to_string(pid) + "/task";
  DIR* const tasks = ::opendir(folder.c_str());
  if (tasks == nullptr) return;
  std::vector<pid_t> children;
  while (const dirent* task = ::readdir(tasks)) {
    if (task->d_name[0] == '.') continue;
    const int file = ::open((folder + "/" + task->d_name + "/children").c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) continue;
    std::string text;
    std::array<char, 4096> piece;
    for (ssize_t got; (got = ::read(file, piece.data(), piece.size())) > 0;)
      text.append(piece.data(), static_cast<std::size_t>(got));
    ::close(file);
    for (char* at = text.data(); *at != '\0';) {
      children.push_back(static_cast<pid_t>(std::strtol(at, &at, 10)));
      while (*at == ' ' || *at == '\n') ++at;
    }
  }
  ::closedir(tasks);
  for (const pid_t child : children) {
    found.push_back(child);
    collectDescendants(child, found);
  }
}

void signalDescendants(int number) {
  std::vector<pid_t> found;
  collectDescendants(::getpid(), found);
  for (const pid_t pid : found) ::kill(pid, number);
}

std::int64_t monotonicMilliseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

/// Supervision is the life of a supervisor after its command was started.
class Supervision {
 public:
  Supervision(int control, pid_t command, int signals) : control_(control), command_(command), signals_(signals) {}

  /// Until no descendant is left.
  void run() {
    while (reap()) {
      const std::int64_t wait = deadline_ < 0 ? -1 : std::max<std::int64_t>(deadline_ - monotonicMilliseconds(), 0);
      std::array<pollfd, 2> waits{pollfd{signals_, POLLIN, 0}, pollfd{control_, POLLIN, 0}};
      const int ready = ::poll(waits.data(), control_ >= 0 ? 2 : 1, static_cast<int>(wait));
      if (ready > 0 && waits[0].revents != 0) drainSignals();
      if (ready > 0 && control_ >= 0 && waits[1].revents != 0) readControl();
      if (deadline_ >= 0 && monotonicMilliseconds() >= deadline_) {
        signalDescendants(SIGKILL);
        deadline_ = monotonicMilliseconds() + kAgainMilliseconds;
      }
    }
  }

 private:
  // A process that was just being forked is missed by one round of SIGKILL; another round follows this soon.
  static constexpr std::int64_t kAgainMilliseconds = 50;

  /// False when there is no child left.
  bool reap() {
    if (!reported_ && !report()) return true;
    // The application may signal the command's group until it asks to clear away. Unburied, the command keeps the
    // number of that group from becoming another one's; what else has ended waits with it.
    if (deadline_ < 0) return true;
    for (;;) {
      const pid_t ended = ::waitpid(-1, nullptr, WNOHANG);
      if (ended == 0) return true;
      if (ended < 0 && errno == EINTR) continue;
      if (ended < 0) return false;
    }
  }
  /// Tells how the command ended and leaves it unburied. False while it runs; other children are buried meanwhile.
  bool report() {
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(command_), &info, WEXITED | WNOHANG | WNOWAIT) < 0 && errno == EINTR) {
    }
    if (info.si_pid != command_) {
      buryAdopted();
      return false;
    }
    reported_ = true;
    const int status = info.si_code == CLD_EXITED ? W_EXITCODE(info.si_status, 0) : W_EXITCODE(0, info.si_status);
    tell(control_, Ended{status});
    return true;
  }
  /// Buries adopted children while the command runs, and never the command.
  void buryAdopted() {
    for (;;) {
      siginfo_t info{};
      const int found = ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT);
      if (found < 0 && errno == EINTR) continue;
      if (found < 0 || info.si_pid == 0 || info.si_pid == command_) return;
      ::waitpid(info.si_pid, nullptr, WNOHANG);
    }
  }
  void readControl() {
    char word = 0;
    const ssize_t got = ::recv(control_, &word, 1, MSG_DONTWAIT);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) return;
    // A word asks to clear away what is left; the end of the stream means that nobody is there to ask.
    if (got <= 0) {
      ::close(control_);
      control_ = -1;
    }
    if (deadline_ >= 0) return;
    signalDescendants(SIGTERM);
    deadline_ = monotonicMilliseconds() + kGraceSeconds * 1000;
  }
  void drainSignals() {
    signalfd_siginfo info;
    while (::read(signals_, &info, sizeof info) > 0) {
    }
  }

  int control_;
  const pid_t command_;
  const int signals_;
  bool reported_ = false;
  std::int64_t deadline_ = -1;
};

}  // namespace

void superviseCommand(int control, int output) {
  // The values pass through this process; the command gets its own memory, and may dump that as it likes.
  ::prctl(PR_SET_DUMPABLE, 0);
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  ::sigprocmask(SIG_BLOCK, &child, nullptr);
  const int signals = ::signalfd(-1, &child, SFD_CLOEXEC | SFD_NONBLOCK);
  pid_t command = -1;
  {
    Launch launch;
    if (!readLaunch(control, launch)) ::_exit(0);
    const int error = start(launch, output, command);
    tell(control, Started{error, static_cast<int>(command)});
  }
  ::close(output);
  if (command > 0) Supervision(control, command, signals).run();
  ::_exit(0);
}

}  // namespace sorvane::platform
