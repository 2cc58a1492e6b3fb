#include "agent/command_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "agent/masking.h"
#include "agent/process_host.h"
#include "base/descriptor.h"
#include "base/mutex.h"
#include "base/open_descriptors.h"
#include "base/unicode.h"

namespace sorvane::agent {
namespace {

using namespace std::chrono_literals;
using SteadyTime = std::chrono::steady_clock::time_point;

/// From the request to end to the end, and from the end of the command to the end of what holds its output.
constexpr auto kGrace = 2s;
constexpr std::string_view kTruncated = "\n…[output truncated at 200,000 bytes]";

bool isFolder(const std::string& path) {
  struct stat status {};
  return path.starts_with('/') && ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

LaunchSpec specOf(const CommandRequest& request) {
  LaunchSpec spec{request.words, {}, request.directory};
  for (const CommandVariable& variable : request.environment) {
    base::SecretText& text = spec.environment.emplace_back(variable.name);
    text.push_back('=');
    text.append(variable.value.view());
  }
  return spec;
}

Masker maskerOf(const CommandRequest& request) {
  std::vector<std::string_view> values;
  for (const CommandVariable& variable : request.environment) {
    if (variable.isSecret) values.push_back(variable.value.view());
  }
  return Masker(values);
}

/// Capture masks the output as it comes and keeps what fits. Everything behind that is read and forgotten, so that the
/// command is not held up.
class Capture {
 public:
  explicit Capture(const Masker& masker) : stream_(masker) {}

  void add(std::string_view piece) {
    if (full_) return;
    stream_.feed(piece, masked_);
    if (masked_.size() <= kMaxOutputBytes) return;
    full_ = true;
    stream_.cut(masked_);
  }
  std::string finish() {
    if (!full_) stream_.finish(masked_);
    if (masked_.size() <= kMaxOutputBytes) return std::move(masked_);
    return std::string(base::prefixOfWholeCharacters(masked_, kMaxOutputBytes)).append(kTruncated);
  }

 private:
  MaskingStream stream_;
  std::string masked_;
  bool full_ = false;
};

}  // namespace

struct CommandControl::State {
  base::Mutex mutex;
  std::shared_ptr<HostedProcess> process GUARDED_BY(mutex);  ///< while it runs; it knows its group
  bool stopped GUARDED_BY(mutex) = false;
  const base::Pipe wake = base::openWakePipe().value_or(base::Pipe());

  bool isStopped() {
    const base::Lock lock(mutex);
    return stopped;
  }
  void setProcess(std::shared_ptr<HostedProcess> running) {
    const base::Lock lock(mutex);
    process = std::move(running);
  }
};

CommandControl::CommandControl() : state_(std::make_shared<State>()) {}
CommandControl::~CommandControl() = default;

void CommandControl::stop() {
  std::shared_ptr<HostedProcess> process;
  {
    const base::Lock lock(state_->mutex);
    if (state_->stopped) return;
    state_->stopped = true;
    process = state_->process;
  }
  if (process) process->signal(SIGTERM);
  // The loop that reads the output sees to the rest.
  base::wake(state_->wake);
}

bool CommandControl::stopped() const {
  return state_->isStopped();
}

namespace {

/// Watch reads one command's output until the command has ended and its output too, or nobody may hold it open any
/// longer.
class Watch {
 public:
  Watch(HostedProcess& process, int wake, Capture& capture, SteadyTime limit)
      : process_(process), wake_(wake), capture_(capture), limit_(limit) {}

  /// True when the time ran out.
  template <typename IsStopped, typename Stop>
  bool run(const IsStopped& isStopped, const Stop& stop) {
    bool timedOut = false;
    while (!(ended_ && (outputClosed_ || now() >= lastOutput_))) {
      await();
      if (!ended_ && now() >= limit_ && !timedOut) {
        timedOut = true;
        stop();
      }
      if (!stopSeen_ && isStopped()) {
        stopSeen_ = true;
        // Once more: the command may have started between the request to stop and now.
        process_.signal(SIGTERM);
        killAt_ = now() + kGrace;
      }
      if (!ended_ && now() >= killAt_) {
        process_.signal(SIGKILL);
        killAt_ = SteadyTime::max();
      }
    }
    return timedOut;
  }

 private:
  static SteadyTime now() { return std::chrono::steady_clock::now(); }

  int pollTime() const {
    SteadyTime next = ended_ ? lastOutput_ : std::min(killAt_, stopSeen_ ? SteadyTime::max() : limit_);
    if (next == SteadyTime::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 1'000'000));
  }
  void await() {
    std::array<pollfd, 3> waits{pollfd{outputClosed_ ? -1 : process_.output(), POLLIN, 0},
                                pollfd{ended_ ? -1 : process_.ended(), POLLIN, 0},
                                pollfd{stopSeen_ ? -1 : wake_, POLLIN, 0}};
    if (::poll(waits.data(), waits.size(), pollTime()) <= 0) return;
    if (waits[0].revents != 0) read();
    if (waits[1].revents != 0) {
      ended_ = true;
      lastOutput_ = now() + kGrace;
    }
  }
  void read() {
    const ssize_t got = ::read(process_.output(), buffer_.data(), buffer_.size());
    if (got < 0 && errno == EINTR) return;
    if (got <= 0)
      outputClosed_ = true;
    else
      capture_.add({buffer_.data(), static_cast<std::size_t>(got)});
  }

  HostedProcess& process_;
  const int wake_;
  Capture& capture_;
  const SteadyTime limit_;
  SteadyTime killAt_ = SteadyTime::max();
  SteadyTime lastOutput_ = SteadyTime::max();
  bool ended_ = false, outputClosed_ = false, stopSeen_ = false;
  std::vector<char> buffer_ = std::vector<char>(64 * 1024);
};

}  // namespace

CommandRunner::Outcome CommandRunner::run(const CommandRequest& request, CommandControl& control) {
  Outcome outcome;
  outcome.result.warnings = request.warnings;
  const auto refused = [&](std::string sentence) {
    outcome.failure = std::move(sentence);
    return std::move(outcome);
  };
  if (request.words.empty()) return refused("Enter a valid command.");
  if (!isFolder(request.directory)) return refused("Project folder is missing. Choose an existing absolute directory.");
  const auto state = control.state_;
  if (state->isStopped()) return refused("Command cancelled.");

  const Masker masker = maskerOf(request);
  std::shared_ptr<HostedProcess> process;
  try {
    process = host_.launch(specOf(request));
  } catch (const LaunchError& error) {
    return refused(error.sentence());
  }
  state->setProcess(process);
  outcome.result.started = true;
  Capture capture(masker);
  Watch watch(*process, state->wake.read.get(), capture, std::chrono::steady_clock::now() + request.timeLimit);
  watch.run([&] { return state->isStopped(); }, [&] { control.stop(); });
  outcome.result.exitCode = process->wait();
  state->setProcess(nullptr);
  process->clear();
  outcome.result.output = capture.finish();
  if (state->isStopped()) {
    outcome.result.output +=
        "\n…[command stopped or timed out after at most " + std::to_string(request.timeLimit.count()) + "s]";
  }
  return outcome;
}

}  // namespace sorvane::agent
