#include "platform/linux/avahi_announcer.h"

#include <sdbus-c++/sdbus-c++.h>
#include <signal.h>

#include <future>

#include "base/diagnostics.h"
#include "platform/linux/bus_loop.h"

namespace sorvane::platform {
namespace {

constexpr char kAvahi[] = "org.freedesktop.Avahi";
constexpr char kServer[] = "org.freedesktop.Avahi.Server";
constexpr char kGroup[] = "org.freedesktop.Avahi.EntryGroup";
constexpr char kCollisionError[] = "org.freedesktop.Avahi.CollisionError";
constexpr std::chrono::seconds kCallLimit{3};
/// Names tried before it is given up; a network with as many is not a real one.
constexpr int kMostNames = 32;
// AVAHI_IF_UNSPEC and AVAHI_PROTO_UNSPEC: every interface, IPv4 and IPv6.
constexpr std::int32_t kEvery = -1;
/// AvahiServerState.
constexpr std::int32_t kServerRunning = 2;
/// AvahiEntryGroupState.
constexpr std::int32_t kGroupCollision = 3, kGroupFailure = 4;

constexpr char kNotAnnounced[] =
    "This computer is not announced on the local network, because Avahi does not run here. Start it (the package is "
    "avahi-daemon), or type the address and the port on the phone.";

using TextRecords = std::vector<std::vector<std::uint8_t>>;

struct Service {
  std::string name;
  std::uint16_t port = 0;
  TextRecords records;
};

/// Announcement is one service at Avahi, on one connection. Failures are sdbus::Error.
class Announcement {
 public:
  Announcement(sdbus::IConnection& connection, Service service)
      : connection_(connection), service_(std::move(service)) {
    server_ = sdbus::createProxy(connection_, kAvahi, "/");
    // The host's own name may change: meanwhile Avahi wants the services taken back.
    server_->uponSignal("StateChanged").onInterface(kServer).call([this](std::int32_t state, const std::string&) {
      attempt([&] { state == kServerRunning ? add() : withdraw(); });
    });
    server_->finishRegistration();
    bus_ = sdbus::createProxy(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    bus_->uponSignal("NameOwnerChanged")
        .onInterface("org.freedesktop.DBus")
        .call([this](const std::string& name, const std::string&, const std::string& owner) {
          if (name != kAvahi) return;
          // The group was the earlier one's.
          group_.reset();
          if (!owner.empty()) attempt([this] { addWhenRunning(); });
        });
    bus_->finishRegistration();
  }

  /// An Avahi that still looks for its own name tells when it is done.
  void addWhenRunning() {
    std::int32_t state = 0;
    server_->callMethod("GetState").onInterface(kServer).withTimeout(kCallLimit).storeResultsTo(state);
    if (state == kServerRunning) add();
  }

 private:
  /// For what comes as a signal: a failure is said, and the next signal may mend it.
  template <typename Work>
  void attempt(const Work& work) {
    try {
      work();
    } catch (const sdbus::Error&) {
      base::diagnose("phone", kNotAnnounced);
    }
  }

  void withdraw() {
    if (group_) group_->callMethod("Reset").onInterface(kGroup).withTimeout(kCallLimit);
  }

  void add() {
    if (!group_) makeGroup();
    for (int names = 1;; ++names) {
      withdraw();
      try {
        group_->callMethod("AddService")
            .onInterface(kGroup)
            .withTimeout(kCallLimit)
            .withArguments(kEvery, kEvery, std::uint32_t{0}, service_.name, std::string(AvahiAnnouncer::kServiceType),
                           std::string(), std::string(), service_.port, service_.records);
        group_->callMethod("Commit").onInterface(kGroup).withTimeout(kCallLimit);
        return;
      } catch (const sdbus::Error& error) {
        if (error.getName() != kCollisionError || names == kMostNames) throw;
        takeOtherName();
      }
    }
  }

  void makeGroup() {
    sdbus::ObjectPath path;
    server_->callMethod("EntryGroupNew").onInterface(kServer).withTimeout(kCallLimit).storeResultsTo(path);
    group_ = sdbus::createProxy(connection_, kAvahi, path);
    group_->uponSignal("StateChanged").onInterface(kGroup).call([this](std::int32_t state, const std::string&) {
      if (state == kGroupFailure) base::diagnose("phone", kNotAnnounced);
      if (state != kGroupCollision || ++collisions_ > kMostNames) return;
      attempt([this] {
        takeOtherName();
        add();
      });
    });
    group_->finishRegistration();
  }

  void takeOtherName() {
    std::string other;
    server_->callMethod("GetAlternativeServiceName")
        .onInterface(kServer)
        .withTimeout(kCallLimit)
        .withArguments(service_.name)
        .storeResultsTo(other);
    service_.name = std::move(other);
  }

  sdbus::IConnection& connection_;
  Service service_;
  int collisions_ = 0;
  // Last: they go first, so that no signal meets what is gone.
  std::unique_ptr<sdbus::IProxy> server_, group_, bus_;
};

}  // namespace

/// Keeper is what the thread works on.
class AvahiAnnouncer::Keeper {
 public:
  Keeper(Service service, std::chrono::milliseconds tryAgain) : service_(std::move(service)), tryAgain_(tryAgain) {}

  std::future<bool> first() { return first_.get_future(); }

  void run() {
    bool isTold = false;
    const auto tell = [&](bool isAnnounced) {
      if (!std::exchange(isTold, true)) first_.set_value(isAnnounced);
    };
    do {
      try {
        BusLoop loop;
        const Use use(*this, loop);
        Announcement announcement(loop.connection(), service_);
        bool isAnnounced = true;
        try {
          announcement.addWhenRunning();
        } catch (const sdbus::Error&) {
          // It may come later; its name on the bus tells.
          isAnnounced = false;
        }
        tell(isAnnounced);
        loop.run([this] { return isEnded(); });
      } catch (const std::exception&) {
        // No bus.
      }
      tell(false);
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
    Use(Keeper& keeper, BusLoop& loop) : keeper_(keeper) { keeper_.set(&loop); }
    ~Use() { keeper_.set(nullptr); }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

   private:
    Keeper& keeper_;
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
    const auto deadline = std::chrono::steady_clock::now() + tryAgain_;
    base::Lock lock(mutex_);
    while (!isEnded_ && ended_.wait_until(lock.mutex(), deadline) == std::cv_status::no_timeout) {
    }
    return !isEnded_;
  }

  // Constant after construction.
  const Service service_;
  const std::chrono::milliseconds tryAgain_;
  std::promise<bool> first_;
  // Guarded. A leaf.
  base::Mutex mutex_;
  base::Condition ended_;
  bool isEnded_ GUARDED_BY(mutex_) = false;
  BusLoop* loop_ GUARDED_BY(mutex_) = nullptr;
};

AvahiAnnouncer::~AvahiAnnouncer() {
  withdraw();
}

std::optional<std::string> AvahiAnnouncer::announce(const std::string& name, std::uint16_t port,
                                                    const std::vector<std::string>& records) {
  Service service{name, port, {}};
  for (const auto& record : records) service.records.emplace_back(record.begin(), record.end());
  const base::Lock lock(mutex_);
  end();
  keeper_ = std::make_shared<Keeper>(std::move(service), tryAgain_);
  auto first = keeper_->first();
  sigset_t all, earlier;
  sigfillset(&all);
  // Signals are for the threads that wait for them.
  ::pthread_sigmask(SIG_SETMASK, &all, &earlier);
  thread_ = std::thread([keeper = keeper_] { keeper->run(); });
  ::pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
  return first.get() ? std::nullopt : std::optional<std::string>(kNotAnnounced);
}

void AvahiAnnouncer::withdraw() {
  const base::Lock lock(mutex_);
  end();
}

void AvahiAnnouncer::end() {
  if (!keeper_) return;
  keeper_->end();
  thread_.join();
  keeper_.reset();
}

}  // namespace sorvane::platform
