#include "platform/linux/polkit_owner_check.h"

#include <sdbus-c++/sdbus-c++.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <map>

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
/// For the probe, which the thread of the lock waits for, and how long what it found is good.
constexpr std::chrono::milliseconds kProbeLimit{300}, kProbeIsFresh{1000};

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

/// What CheckAuthorization said. `silent`: nothing that tells why.
enum class Verdict { authorized, dismissed, challenge, refused, noService, noAction, noAsker, noAnswer, silent };

/// Whether nobody is there to answer. A bus that is there and refuses for another reason, such as too many connections
/// of this user, does not show that polkit is missing.
bool isAbsence(const std::string& name) {
  constexpr std::array<std::string_view, 5> kNames = {
      "org.freedesktop.DBus.Error.ServiceUnknown", "org.freedesktop.DBus.Error.NameHasNoOwner",
      "org.freedesktop.DBus.Error.FileNotFound", "System.Error.ENOENT", "System.Error.ECONNREFUSED"};
  return std::ranges::find(kNames, name) != kNames.end() || name.starts_with("org.freedesktop.DBus.Error.Spawn.");
}

bool isGone(const base::ProcessInfo& process) {
  const auto now = base::processInfo(process.pid);
  return !now || now->startedAt != process.startedAt;
}

Verdict verdictOf(const sdbus::Error& error, const base::ProcessInfo& process) {
  const std::string& name = error.getName();
  if (name == "org.freedesktop.PolicyKit1.Error.Cancelled") return Verdict::noAnswer;
  // polkit has one name for most failures; "Action … is not registered" is the one about the action.
  const bool isFailed = name == "org.freedesktop.PolicyKit1.Error.Failed";
  if (isFailed && error.getMessage().find("is not registered") != std::string::npos) return Verdict::noAction;
  if (isAbsence(name)) return Verdict::noService;
  return isGone(process) ? Verdict::noAsker : Verdict::silent;
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
        .uponReplyInvoke([&](const sdbus::Error* error, const Authorization& authorization) {
          verdict = error != nullptr ? verdictOf(*error, process) : verdictOf(authorization);
        });
    const auto end = loop_.run([&] { return verdict || isWithdrawn(); }, steady_clock::now() + limit);
    if (verdict) return *verdict;
    if (end == BusLoop::End::disconnected) return Verdict::silent;
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
      return kPolkitNoQuestion;
    case Verdict::refused:
    case Verdict::dismissed:
      return kPolkitForbidden;
    case Verdict::noAction:
      return kPolkitActionAbsent;
    case Verdict::noService:
      return kPolkitAbsent;
    case Verdict::noAsker:
      return kAskerGone;
    case Verdict::noAnswer:
    case Verdict::silent:
      break;
  }
  return kPolkitSilent;
}

std::string_view obstacleIn(const sdbus::Error& error) {
  return isAbsence(error.getName()) ? kPolkitAbsent : kPolkitSilent;
}

/// Whether it holds for every question on this machine.
bool isOfTheMachine(std::string_view obstacle) {
  return !obstacle.empty() && obstacle != kPolkitSilent && obstacle != kAskerGone;
}

unlock::OwnerPresence::Failed notAsked(std::string_view obstacle) {
  using Failed = unlock::OwnerPresence::Failed;
  return {obstacle == kPolkitSilent || obstacle == kPolkitAbsent ? Failed::kSystemCancelled : Failed::kNotInteractive,
          std::string(obstacle)};
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
}

Asking PolkitOwnerCheck::askingNow() const {
  if (auto asking = ports_.asking ? ports_.asking() : std::nullopt) return *std::move(asking);
  return {base::processInfo(::getpid()).value_or(base::ProcessInfo{}), false};
}

std::optional<std::string> PolkitOwnerCheck::unavailable() {
  if (::geteuid() == 0) return std::string(kPolkitAsRoot);
  {
    const base::Lock lock(mutex_);
    if (probe_ && steady_clock::now() - probe_->at < kProbeIsFresh) return probe_->obstacle;
  }
  std::string_view obstacle;
  try {
    BusLoop loop;
    const auto self = base::processInfo(::getpid()).value_or(base::ProcessInfo{});
    obstacle = obstacleIn(Authority(loop).check(self, kAskNobody, kProbeLimit, [] { return false; }));
  } catch (const sdbus::Error& error) {
    obstacle = obstacleIn(error);
  }
  const auto found = isOfTheMachine(obstacle) ? std::optional<std::string>(obstacle) : std::nullopt;
  const base::Lock lock(mutex_);
  probe_ = Probe{steady_clock::now(), found};
  return found;
}

void PolkitOwnerCheck::ask(Check, const std::string& reason, Reply reply) {
  withdraw();
  question_ = std::make_shared<Question>();
  question_->asking = askingNow();
  question_->reason = reason;
  question_->reply = std::move(reply);
  threads_.start([this, question = question_] {
    Answer answer = Failed{Failed::kSystemCancelled};
    try {
      answer = answerTo(*question);
    } catch (const sdbus::Error& error) {
      answer = notAsked(obstacleIn(error));
    } catch (const std::exception&) {
      // Without memory nobody was asked.
    }
    question->reply(answer);
  });
}

void PolkitOwnerCheck::withdraw() {
  if (const auto question = std::exchange(question_, nullptr)) question->withdraw();
}

unlock::OwnerPresence::Answer PolkitOwnerCheck::answerTo(Question& question) {
  if (::geteuid() == 0) return notAsked(kPolkitAsRoot);
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
  if (const auto obstacle = obstacleIn(before); !obstacle.empty()) return notAsked(obstacle);
  const bool isShown = ports_.showReason(question.reason) || question.asking.showsReason;
  // A notice takes its time.
  if (isWithdrawn()) return Cancelled{};
  if (!isShown) return notAsked(kReasonNowhere);
  const Verdict verdict = authority.check(question.asking.process, kAskTheOwner, ports_.limit, isWithdrawn);
  if (isWithdrawn()) return Cancelled{};
  switch (verdict) {
    case Verdict::authorized:
      return Granted{};
    case Verdict::dismissed:
    case Verdict::noAnswer:
      return Cancelled{};
    case Verdict::refused:
      return Failed{Failed::kNotAccepted};
    case Verdict::challenge:
      return notAsked(kPolkitNoAgent);
    case Verdict::noService:
    case Verdict::noAction:
    case Verdict::noAsker:
    case Verdict::silent:
      break;
  }
  return notAsked(obstacleIn(verdict));
}

}  // namespace sorvane::platform
