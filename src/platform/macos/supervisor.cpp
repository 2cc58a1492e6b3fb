#include "platform/macos/supervisor.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/event.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <optional>
#include <utility>
#include <vector>

#include "base/descriptor.h"
#include "base/system.h"
#include "platform/macos/descendants.h"
#include "platform/shared/command_channel.h"

namespace sorvane::platform {
namespace {

using Clock = std::chrono::steady_clock;

/// What a command is started with: a process group of its own, the signals as a shell leaves them, and no descriptor
/// but those that the actions name.
class SpawnPlan {
 public:
  SpawnPlan() {
    ::posix_spawnattr_init(&attributes_);
    ::posix_spawn_file_actions_init(&actions_);
  }
  ~SpawnPlan() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  /// 0, or an errno.
  int prepare(const Launch& launch, int output) {
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    // These two cannot be set.
    for (const int number : {SIGKILL, SIGSTOP}) sigdelset(&all, number);
    const int flags =
        POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_CLOEXEC_DEFAULT;
    int error = ::posix_spawnattr_setflags(&attributes_, static_cast<short>(flags));
    const auto then = [&error](int next) { error = error != 0 ? error : next; };
    then(::posix_spawnattr_setpgroup(&attributes_, 0));
    then(::posix_spawnattr_setsigdefault(&attributes_, &all));
    then(::posix_spawnattr_setsigmask(&attributes_, &none));
    then(::posix_spawn_file_actions_addchdir_np(&actions_, launch.directory));
    then(::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0));
    then(::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO));
    then(::posix_spawn_file_actions_adddup2(&actions_, output, STDERR_FILENO));
    return error;
  }
  int run(const Launch& launch, pid_t& command) const {
    return ::posix_spawn(&command, "/usr/bin/env", &actions_, &attributes_, launch.words.data(),
                         launch.environment.data());
  }

 private:
  posix_spawnattr_t attributes_{};
  posix_spawn_file_actions_t actions_{};
};

/// 0 with the command, or the errno that kept it from starting.
int start(const Launch& launch, int output, pid_t& command) {
  // Above the three standard ones, which are replaced.
  const base::Descriptor above(::fcntl(output, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  if (!above) return errno;
  SpawnPlan plan;
  const int error = plan.prepare(launch, above.get());
  return error != 0 ? error : plan.run(launch, command);
}

/// Supervision is the life of a supervisor after its command was started.
class Supervision {
 public:
  Supervision(int queue, int control, int output, pid_t command)
      : queue_(queue), control_(control), command_(command), descendants_(command, output) {
    // From now on the command's own processes alone hold it.
    ::close(output);
  }

  /// Until the command has ended, the application has asked to clear away or is gone, and nothing is left.
  void run() {
    add(control_, EVFILT_READ, 0);
    const bool isWatched = add(command_, EVFILT_PROC, NOTE_EXIT | NOTE_EXITSTATUS | NOTE_FORK);
    watch(descendants_.look());
    if (!isWatched) reportEarlyEnd();
    while (!isOver()) {
      waitForEvents();
      if (deadline_ && Clock::now() >= *deadline_) {
        descendants_.signal(SIGKILL);
        deadline_ = Clock::now() + kAgain;
      }
    }
    if (!isBuried_) bury();
  }

 private:
  // A process that was just being forked is missed by one round of SIGKILL; another round follows this soon.
  static constexpr std::chrono::milliseconds kAgain{50};

  bool add(int what, int filter, unsigned notes) {
    struct kevent change {};
    change.ident = static_cast<uintptr_t>(what);
    change.filter = static_cast<int16_t>(filter);
    change.flags = EV_ADD;
    change.fflags = notes;
    return ::kevent(queue_, &change, 1, nullptr, 0, nullptr) == 0;
  }
  void watch(const std::vector<pid_t>& fresh) {
    for (const pid_t process : fresh) {
      if (process == command_ || !add(process, EVFILT_PROC, NOTE_EXIT | NOTE_FORK)) continue;
      // What it started before it was watched.
      watch(descendants_.lookBelow(process));
    }
  }
  bool isOver() {
    if (!reported_ || !deadline_) return false;
    watch(descendants_.lookEverywhere());
    return !descendants_.any();
  }
  void waitForEvents() {
    timespec limit{};
    if (deadline_) {
      const auto left = std::max<Clock::duration>(*deadline_ - Clock::now(), Clock::duration::zero());
      limit.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(left).count();
      limit.tv_nsec = std::chrono::nanoseconds(left % std::chrono::seconds(1)).count();
    }
    std::array<struct kevent, 16> events{};
    const int count =
        ::kevent(queue_, nullptr, 0, events.data(), static_cast<int>(events.size()), deadline_ ? &limit : nullptr);
    for (int i = 0; i < count; ++i) handle(events[static_cast<std::size_t>(i)]);
  }
  void handle(const struct kevent& event) {
    if (event.filter == EVFILT_READ) return readControl();
    const auto process = static_cast<pid_t>(event.ident);
    if ((event.fflags & NOTE_FORK) != 0) watch(descendants_.lookBelow(process));
    if ((event.fflags & NOTE_EXIT) == 0) return;
    descendants_.ended(process);
    if (process == command_) report(static_cast<int>(event.data));
  }
  /// The command stays unburied: the application may signal its group until it asks to clear away, and meanwhile the
  /// number must not become another group's.
  void report(int status) {
    if (std::exchange(reported_, true)) return;
    if (control_ >= 0) tell(control_, Ended{status});
  }
  /// A command that had ended before it could be watched.
  void reportEarlyEnd() {
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(command_), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
    // This call does not name the signal that ended a process.
    if (info.si_code != CLD_EXITED) return bury();
    descendants_.ended(command_);
    report(W_EXITCODE(info.si_status, 0));
  }
  void bury() {
    int status = 0;
    while (::waitpid(command_, &status, 0) < 0 && errno == EINTR) {
    }
    isBuried_ = true;
    descendants_.leaderBuried();
    report(status);
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
    if (deadline_) return;
    watch(descendants_.lookEverywhere());
    descendants_.signal(SIGTERM);
    deadline_ = Clock::now() + std::chrono::seconds(kGraceSeconds);
  }

  const int queue_;
  int control_;
  const pid_t command_;
  Descendants descendants_;
  bool reported_ = false, isBuried_ = false;
  std::optional<Clock::time_point> deadline_;  ///< of the next SIGKILL, once there is to be an end
};

}  // namespace

void superviseCommand(int control, int output) {
  // The values pass through this process; the command gets its own memory.
  base::hardenProcess();
  const int queue = ::kqueue();
  pid_t command = -1;
  {
    Launch launch;
    if (!readLaunch(control, launch)) ::_exit(0);
    const int error = queue < 0 ? errno : start(launch, output, command);
    if (error != 0) command = -1;
    tell(control, Started{error, static_cast<int>(command)});
  }
  if (command > 0) Supervision(queue, control, output, command).run();
  ::_exit(0);
}

}  // namespace sorvane::platform
