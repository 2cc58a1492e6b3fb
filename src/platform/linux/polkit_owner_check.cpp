#include "platform/linux/polkit_owner_check.h"

#include <sdbus-c++/sdbus-c++.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <vector>

#include "base/ids.h"
#include "platform/linux/bus_loop.h"

namespace sorvane::platform {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr char kService[] = "org.freedesktop.PolicyKit1";
constexpr char kPath[] = "/org/freedesktop/PolicyKit1/Authority";
constexpr char kInterface[] = "org.freedesktop.PolicyKit1.Authority";
constexpr char kAction[] = "org.sorvane.owner-check";
/// For everything that waits for polkit and not for a person; polkit may have to be started first.
constexpr std::chrono::seconds kCallLimit{5};

using Details = std::map<std::string, std::string>;
using Subject = sdbus::Struct<std::string, std::map<std::string, sdbus::Variant>>;
using Authorization = sdbus::Struct<bool, bool, Details>;

/// Flags of CheckAuthorization.
constexpr std::uint32_t kAskNobody = 0, kAskTheOwner = 1;

Subject subjectOf(const base::ProcessInfo& process) {
  std::map<std::string, sdbus::Variant> words;
  words["pid"] = sdbus::Variant(static_cast<std::uint32_t>(process.pid));
  words["start-time"] = sdbus::Variant(static_cast<std::uint64_t>(process.startedAt));
  words["uid"] = sdbus::Variant(static_cast<std::int32_t>(::geteuid()));
  return {"unix-process", words};
}

/// What CheckAuthorization said.
enum class Verdict { authorized, dismissed, challenge, refused, noService, noAction, noAnswer, gone };

Verdict verdictOf(const sdbus::Error& error) {
  const std::string& name = error.getName();
  if (name == "org.freedesktop.PolicyKit1.Error.Failed") return Verdict::noAction;
  if (name == "org.freedesktop.PolicyKit1.Error.Cancelled") return Verdict::noAnswer;
  if (name == "org.freedesktop.DBus.Error.NoReply" || name == "org.freedesktop.DBus.Error.Disconnected") {
    return Verdict::gone;
  }
  return Verdict::noService;
}

Verdict verdictOf(const Authorization& authorization) {
  if (authorization.get<0>()) return Verdict::authorized;
  if (authorization.get<2>().contains("polkit.dismissed")) return Verdict::dismissed;
  return authorization.get<1>() ? Verdict::challenge : Verdict::refused;
}

/// Authority is polkit on one connection.
class Authority {
 public:
  explicit Authority(BusLoop& loop) : loop_(loop), proxy_(sdbus::createProxy(loop.connection(), kService, kPath)) {}

  Verdict check(const base::ProcessInfo& process, std::uint32_t flags, steady_clock::duration limit,
                const std::function<bool()>& isWithdrawn) {
    const std::string cancellation = flags == kAskNobody ? std::string() : base::randomUuid();
    std::optional<Verdict> verdict;
    // The call's own limit lies behind ours, which takes the question back.
    proxy_->callMethodAsync("CheckAuthorization")
        .onInterface(kInterface)
        .withTimeout(std::chrono::duration_cast<std::chrono::microseconds>(limit + kCallLimit))
        .withArguments(subjectOf(process), std::string(kAction), Details{}, flags, cancellation)
        .uponReplyInvoke([&verdict](const sdbus::Error* error, const Authorization& authorization) {
          verdict = error != nullptr ? verdictOf(*error) : verdictOf(authorization);
        });
    const auto end = loop_.run([&] { return verdict || isWithdrawn(); }, steady_clock::now() + limit);
    if (verdict) return *verdict;
    if (end == BusLoop::End::disconnected) return Verdict::gone;
    if (!cancellation.empty()) cancel(cancellation);
    return Verdict::noAnswer;
  }

 private:
  /// Takes the agent's window away. What the question itself still says is dropped.
  void cancel(const std::string& cancellation) {
    bool isDone = false;
    proxy_->callMethodAsync("CancelCheckAuthorization")
        .onInterface(kInterface)
        .withTimeout(kCallLimit)
        .withArguments(cancellation)
        .uponReplyInvoke([&isDone](const sdbus::Error*) { isDone = true; });
    loop_.run([&isDone] { return isDone; }, steady_clock::now() + 1s);
  }

  BusLoop& loop_;
  const std::unique_ptr<sdbus::IProxy> proxy_;
};

/// Why nobody could be asked, by what polkit says without asking; empty: somebody can.
std::string_view obstacleIn(const Verdict& verdict) {
  switch (verdict) {
    case Verdict::challenge:
      return {};
    case Verdict::authorized:
      return ::geteuid() == 0 ? kPolkitAsRoot : kPolkitNoQuestion;
    case Verdict::refused:
    case Verdict::dismissed:
      return kPolkitForbidden;
    case Verdict::noAction:
      return kPolkitActionAbsent;
    case Verdict::noService:
    case Verdict::noAnswer:
    case Verdict::gone:
      return kPolkitAbsent;
  }
  return kPolkitAbsent;
}

}  // namespace

struct PolkitOwnerCheck::Question {
  Asking asking;
  std::string reason;
  Reply reply;
  // Guarded. A leaf.
  base::Mutex mutex;
  bool isWithdrawn GUARDED_BY(mutex) = false;
  BusLoop* loop GUARDED_BY(mutex) = nullptr;

  bool withdrawn() {
    const base::Lock lock(mutex);
    return isWithdrawn;
  }
  void withdraw() {
    const base::Lock lock(mutex);
    isWithdrawn = true;
    if (loop != nullptr) loop->wake();
  }
  void useLoop(BusLoop* used) {
    const base::Lock lock(mutex);
    loop = used;
  }
};

PolkitOwnerCheck::PolkitOwnerCheck(Ports ports) : ports_(std::move(ports)) {}

PolkitOwnerCheck::~PolkitOwnerCheck() {
  withdraw();
  if (thread_.joinable()) thread_.join();
}

Asking PolkitOwnerCheck::askingNow() const {
  if (auto asking = ports_.asking ? ports_.asking() : std::nullopt) return *std::move(asking);
  return {base::processInfo(::getpid()).value_or(base::ProcessInfo{}), false};
}

std::optional<std::string> PolkitOwnerCheck::unavailable() {
  if (::geteuid() == 0) return std::string(kPolkitAsRoot);
  const base::ProcessInfo subject = askingNow().process;
  std::string_view obstacle = kPolkitAbsent;
  try {
    BusLoop loop;
    obstacle = obstacleIn(Authority(loop).check(subject, kAskNobody, kCallLimit, [] { return false; }));
  } catch (const sdbus::Error&) {
    // No bus, no polkit.
  }
  if (!obstacle.empty()) return std::string(obstacle);
  const base::Lock lock(mutex_);
  const bool isHis = obstacle_ && obstacle_->pid == subject.pid && obstacle_->startedAt == subject.startedAt;
  return isHis ? std::optional(obstacle_->sentence) : std::nullopt;
}

void PolkitOwnerCheck::ask(Check, const std::string& reason, Reply reply) {
  withdraw();
  if (thread_.joinable()) thread_.join();
  question_ = std::make_shared<Question>();
  question_->asking = askingNow();
  question_->reason = reason;
  question_->reply = std::move(reply);
  sigset_t all, earlier;
  sigfillset(&all);
  // Signals are for the threads that wait for them.
  ::pthread_sigmask(SIG_SETMASK, &all, &earlier);
  thread_ = std::thread([this, question = question_] {
    Answer answer = Failed{Failed::kSystemCancelled};
    try {
      answer = answerTo(*question);
    } catch (const std::exception&) {
      // Without a bus or memory nobody was asked.
    }
    question->reply(answer);
  });
  ::pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
}

void PolkitOwnerCheck::withdraw() {
  if (const auto question = std::exchange(question_, nullptr)) question->withdraw();
}

unlock::OwnerPresence::Answer PolkitOwnerCheck::answerTo(Question& question) {
  if (::geteuid() == 0) return Failed{Failed::kNotInteractive};
  BusLoop loop;
  // The loop may be woken until this function returns.
  struct Use {
    Question& question;
    ~Use() { question.useLoop(nullptr); }
  } use{question};
  question.useLoop(&loop);
  const auto isWithdrawn = [&question] { return question.withdrawn(); };
  Authority authority(loop);
  const Verdict before = authority.check(question.asking.process, kAskNobody, kCallLimit, isWithdrawn);
  if (isWithdrawn()) return Cancelled{};
  if (const auto obstacle = obstacleIn(before); !obstacle.empty()) {
    return Failed{before == Verdict::gone ? Failed::kSystemCancelled : Failed::kNotInteractive};
  }
  if (!ports_.showReason(question.reason) && !question.asking.showsReason) {
    remember(question.asking.process, kReasonNowhere);
    return Failed{Failed::kNotInteractive};
  }
  const Verdict verdict = authority.check(question.asking.process, kAskTheOwner, ports_.limit, isWithdrawn);
  if (isWithdrawn()) return Cancelled{};
  if (verdict == Verdict::challenge) {
    remember(question.asking.process, kPolkitNoAgent);
    return Failed{Failed::kNotInteractive};
  }
  forget();
  switch (verdict) {
    case Verdict::authorized:
      return Granted{};
    case Verdict::dismissed:
    case Verdict::noAnswer:
      return Cancelled{};
    case Verdict::refused:
      return Failed{Failed::kNotAccepted};
    case Verdict::challenge:
    case Verdict::noService:
    case Verdict::noAction:
    case Verdict::gone:
      break;
  }
  return Failed{Failed::kSystemCancelled};
}

void PolkitOwnerCheck::remember(const base::ProcessInfo& subject, std::string_view sentence) {
  const base::Lock lock(mutex_);
  obstacle_ = Remembered{subject.pid, subject.startedAt, std::string(sentence)};
}

void PolkitOwnerCheck::forget() {
  const base::Lock lock(mutex_);
  obstacle_.reset();
}

}  // namespace sorvane::platform
