#include "platform/linux/login_session.h"

#include <sdbus-c++/sdbus-c++.h>
#include <signal.h>
#include <unistd.h>

#include <future>
#include <map>
#include <vector>

#include "base/descriptor.h"
#include "base/diagnostics.h"
#include "base/mutex.h"
#include "platform/linux/bus_loop.h"

namespace sorvane::platform {

using unlock::SessionState;

namespace {

using namespace std::chrono_literals;

constexpr char kService[] = "org.freedesktop.login1";
constexpr char kManagerPath[] = "/org/freedesktop/login1";
constexpr char kManager[] = "org.freedesktop.login1.Manager";
constexpr char kSession[] = "org.freedesktop.login1.Session";
constexpr char kUser[] = "org.freedesktop.login1.User";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr std::chrono::seconds kCallLimit{3};

constexpr char kNobodyReports[] =
    "There is no login manager that reports your session, so the vault does not close when the screen locks. Lock it "
    "with sorvane lock.";

using Changes = std::map<std::string, sdbus::Variant>;

/// Reporter is the login manager's view of one session, on one connection. Failures are sdbus::Error.
class Reporter {
 public:
  using Tell = std::function<void(const SessionState&, const unlock::SessionSignals::Hold&)>;

  Reporter(sdbus::IConnection& connection, const std::string& sessionId, Tell tell)
      : connection_(connection), tell_(std::move(tell)), manager_(proxyOf(kManagerPath)) {
    sessionPath_ = findSession(sessionId);
    session_ = proxyOf(sessionPath_);
    listen();
    take();
    read();
  }

  SessionState state() const {
    SessionState state = state_;
    state.screenLocked = lockedHint_ || lockAsked_;
    return state;
  }

 private:
  std::unique_ptr<sdbus::IProxy> proxyOf(const std::string& path) {
    return sdbus::createProxy(connection_, kService, path);
  }

  std::string findSession(const std::string& id) {
    sdbus::ObjectPath path;
    if (!id.empty()) {
      manager_->callMethod("GetSession")
          .onInterface(kManager)
          .withTimeout(kCallLimit)
          .withArguments(id)
          .storeResultsTo(path);
      return path;
    }
    try {
      manager_->callMethod("GetSessionByPID")
          .onInterface(kManager)
          .withTimeout(kCallLimit)
          .withArguments(static_cast<std::uint32_t>(::getpid()))
          .storeResultsTo(path);
      return path;
    } catch (const sdbus::Error&) {
      // A service of the user's own manager belongs to no session.
    }
    manager_->callMethod("GetUser")
        .onInterface(kManager)
        .withTimeout(kCallLimit)
        .withArguments(static_cast<std::uint32_t>(::getuid()))
        .storeResultsTo(path);
    const auto user = proxyOf(path);
    const sdbus::Variant display = user->getProperty("Display").onInterface(kUser);
    const auto named = display.get<sdbus::Struct<std::string, sdbus::ObjectPath>>();
    if (named.get<0>().empty()) throw sdbus::Error("org.freedesktop.login1.NoSuchSession", "no session");
    return named.get<1>();
  }

  void listen() {
    session_->uponSignal("Lock").onInterface(kSession).call([this] { change(lockAsked_, true); });
    session_->uponSignal("Unlock").onInterface(kSession).call([this] { change(lockAsked_, false); });
    session_->uponSignal("PropertiesChanged")
        .onInterface(kProperties)
        .call([this](const std::string& interface, const Changes& changes, const std::vector<std::string>&) {
          if (interface == kSession) changed(changes);
        });
    session_->finishRegistration();
    manager_->uponSignal("PrepareForSleep").onInterface(kManager).call([this](bool begins) {
      prepare(state_.asleep, begins);
    });
    manager_->uponSignal("PrepareForShutdown").onInterface(kManager).call([this](bool begins) {
      prepare(state_.poweringOff, begins);
    });
    manager_->uponSignal("SessionRemoved")
        .onInterface(kManager)
        .call([this](const std::string&, const sdbus::ObjectPath& path) {
          if (path == sessionPath_) change(state_.active, false);
        });
    manager_->finishRegistration();
    // A login manager that is started anew knows nothing of our inhibitor.
    bus_ = sdbus::createProxy(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    bus_->uponSignal("NameOwnerChanged")
        .onInterface("org.freedesktop.DBus")
        .call([this](const std::string& name, const std::string&, const std::string& owner) {
          if (name == kService && !owner.empty()) renew();
        });
    bus_->finishRegistration();
  }

  void renew() {
    try {
      take();
      read();
    } catch (const sdbus::Error&) {
      // A login manager that does not know the session any more: it is over.
      state_.active = false;
    }
    tell_(state(), nullptr);
  }

  void read() {
    Changes all;
    session_->callMethod("GetAll")
        .onInterface(kProperties)
        .withTimeout(kCallLimit)
        .withArguments(std::string(kSession))
        .storeResultsTo(all);
    apply(all);
  }

  void apply(const Changes& changes) {
    if (const auto found = changes.find("Active"); found != changes.end()) state_.active = found->second.get<bool>();
    const auto hint = changes.find("LockedHint");
    if (hint == changes.end()) return;
    lockedHint_ = hint->second.get<bool>();
    // Whoever locks screens took the request over.
    if (!lockedHint_) lockAsked_ = false;
  }

  void changed(const Changes& changes) {
    const SessionState before = state();
    apply(changes);
    if (state() != before) tell_(state(), nullptr);
  }

  void change(bool& field, bool value) {
    const SessionState before = state();
    field = value;
    if (state() != before) tell_(state(), nullptr);
  }

  void prepare(bool& field, bool begins) {
    field = begins;
    // The inhibitor goes with the hold: what it delays begins once the last copy is gone.
    tell_(state(), begins ? std::exchange(inhibitor_, nullptr) : nullptr);
    if (begins) return;
    try {
      take();
    } catch (const sdbus::Error&) {
      base::diagnose("session", "the next sleep will not wait for the vault to be closed");
    }
  }

  void take() {
    sdbus::UnixFd held;
    manager_->callMethod("Inhibit")
        .onInterface(kManager)
        .withTimeout(kCallLimit)
        .withArguments(std::string("sleep:shutdown"), std::string("sorvane"), std::string("The vault is closed first"),
                       std::string("delay"))
        .storeResultsTo(held);
    inhibitor_ = std::make_shared<const base::Descriptor>(held.release());
  }

  sdbus::IConnection& connection_;
  const Tell tell_;
  std::string sessionPath_;
  SessionState state_;
  bool lockedHint_ = false, lockAsked_ = false;
  std::shared_ptr<const base::Descriptor> inhibitor_;
  // Last: they go first, so that no signal meets what is gone.
  std::unique_ptr<sdbus::IProxy> manager_, session_, bus_;
};

}  // namespace

/// Watch is what the thread works on.
class LoginSession::Watch {
 public:
  Watch(const Ports& ports, Observer observer) : ports_(ports), observer_(std::move(observer)) {}

  std::future<std::optional<SessionState>> first() { return first_.get_future(); }

  void run() {
    bool isTold = false;
    do {
      try {
        BusLoop loop;
        const Use use(*this, loop);
        Reporter reporter(loop.connection(), ports_.sessionId, observer_);
        isTold ? observer_(reporter.state(), nullptr) : first_.set_value(reporter.state());
        isTold = true;
        loop.run([this] { return isEnded(); });
      } catch (const std::exception&) {
        // No bus, no login manager, or no session there.
      }
      if (!isTold) return first_.set_value(std::nullopt);
      if (isEnded()) return;
      // Nobody would tell when the screen locks.
      SessionState unknown;
      unknown.active = false;
      observer_(unknown, nullptr);
    } while (waitToTryAgain());
  }

  void end() {
    const base::Lock lock(mutex_);
    isEnded_ = true;
    if (loop_ != nullptr) loop_->wake();
    ended_.notify_all();
  }

 private:
  /// Lets `end` wake the loop for as long as there is one.
  class Use {
   public:
    Use(Watch& watch, BusLoop& loop) : watch_(watch) { watch_.set(&loop); }
    ~Use() { watch_.set(nullptr); }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

   private:
    Watch& watch_;
  };
  void set(BusLoop* loop) {
    const base::Lock lock(mutex_);
    loop_ = loop;
  }
  bool isEnded() {
    const base::Lock lock(mutex_);
    return isEnded_;
  }
  bool waitToTryAgain() {
    const auto deadline = std::chrono::steady_clock::now() + ports_.tryAgain;
    base::Lock lock(mutex_);
    while (!isEnded_ && ended_.wait_until(lock.mutex(), deadline) == std::cv_status::no_timeout) {
    }
    return !isEnded_;
  }

  // Constant after construction.
  const Ports& ports_;
  const Observer observer_;
  std::promise<std::optional<SessionState>> first_;
  // Guarded. A leaf.
  base::Mutex mutex_;
  base::Condition ended_;
  bool isEnded_ GUARDED_BY(mutex_) = false;
  BusLoop* loop_ GUARDED_BY(mutex_) = nullptr;
};

LoginSession::~LoginSession() {
  if (!watch_) return;
  watch_->end();
  thread_.join();
}

std::optional<SessionState> LoginSession::observe(Observer observer) {
  watch_ = std::make_shared<Watch>(ports_, std::move(observer));
  auto first = watch_->first();
  sigset_t all, earlier;
  sigfillset(&all);
  // Signals are for the threads that wait for them.
  ::pthread_sigmask(SIG_SETMASK, &all, &earlier);
  thread_ = std::thread([watch = watch_] { watch->run(); });
  ::pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
  const auto state = first.get();
  if (!state) base::diagnose("session", kNobodyReports);
  return state;
}

}  // namespace sorvane::platform
