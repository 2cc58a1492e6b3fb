// The session signals against a stand-in login manager; tests/support/with-login-manager starts one and this program.
#include "platform/linux/login_session.h"

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <deque>

#include "base/mutex.h"
#include "support/private_bus.h"

namespace sorvane::test {
namespace {

using namespace std::chrono_literals;
using platform::LoginSession;
using unlock::SessionState;

constexpr char kManagerPath[] = "/org/freedesktop/login1", kSessionPath[] = "/org/freedesktop/login1/session/c1";
constexpr char kManager[] = "org.freedesktop.login1.Manager", kSession[] = "org.freedesktop.login1.Session";
constexpr char kMock[] = "org.freedesktop.DBus.Mock";

/// What the session told, in order.
class Told {
 public:
  unlock::SessionSignals::Observer observer() {
    return [this](const SessionState& state, const unlock::SessionSignals::Hold& hold) {
      const base::Lock lock(mutex_);
      states_.push_back(state);
      hold_ = hold;
      changed_.notify_all();
    };
  }
  /// The next state, or nullopt when there is none for ten seconds.
  std::optional<SessionState> next() {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    const base::Lock lock(mutex_);
    while (states_.empty()) {
      if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout) return std::nullopt;
    }
    const SessionState state = states_.front();
    states_.pop_front();
    return state;
  }
  unlock::SessionSignals::Hold takeHold() {
    const base::Lock lock(mutex_);
    return std::exchange(hold_, nullptr);
  }
  bool isQuiet() {
    const base::Lock lock(mutex_);
    return states_.empty();
  }

 private:
  base::Mutex mutex_;
  base::Condition changed_;
  std::deque<SessionState> states_ GUARDED_BY(mutex_);
  unlock::SessionSignals::Hold hold_ GUARDED_BY(mutex_);
};

/// The stand-in, told what to report.
class LoginManager : public ::testing::Test {
 protected:
  using Properties = std::map<std::string, sdbus::Variant>;
  using Inhibitor = sdbus::Struct<std::string, std::string, std::string, std::string, std::uint32_t, std::uint32_t>;

  void emit(const std::string& signal, const std::string& signature, const std::vector<sdbus::Variant>& arguments) {
    manager_->callMethod("EmitSignal")
        .onInterface(kMock)
        .withArguments(std::string(kManager), signal, signature, arguments);
  }
  void ask(const char* method) { session_->callMethod(method).onInterface(kSession); }
  void set(const std::string& property, bool value) {
    session_->callMethod("UpdateProperties")
        .onInterface(kMock)
        .withArguments(std::string(kSession), Properties{{property, sdbus::Variant(value)}});
  }
  std::vector<Inhibitor> inhibitors() {
    std::vector<Inhibitor> list;
    manager_->callMethod("ListInhibitors").onInterface(kManager).storeResultsTo(list);
    return list;
  }
  /// The stand-in notices a closed descriptor in its own time.
  std::size_t inhibitorsOnce(std::size_t expected) {
    std::size_t count = 0;
    for (int i = 0; i < 200 && (count = inhibitors().size()) != expected; ++i) ::usleep(20'000);
    return count;
  }

  Told told_;
  std::unique_ptr<sdbus::IConnection> connection_ = sdbus::createSystemBusConnection();
  std::unique_ptr<sdbus::IProxy> manager_ = sdbus::createProxy(*connection_, "org.freedesktop.login1", kManagerPath);
  std::unique_ptr<sdbus::IProxy> session_ = sdbus::createProxy(*connection_, "org.freedesktop.login1", kSessionPath);
};

TEST_F(LoginManager, tellsEveryWayToLeaveTheSessionAndToComeBack) {
  LoginSession session({.sessionId = "c1"});
  EXPECT_EQ(session.observe(told_.observer()), SessionState{});
  const SessionState here, locked{.screenLocked = true};
  ask("Lock");
  EXPECT_EQ(told_.next(), locked);
  ask("Unlock");
  EXPECT_EQ(told_.next(), here);
  set("LockedHint", true);
  EXPECT_EQ(told_.next(), locked);
  // Asked to lock what is locked, and unlocked by whoever locks screens.
  ask("Lock");
  set("LockedHint", false);
  EXPECT_EQ(told_.next(), here);
  set("Active", false);
  EXPECT_EQ(told_.next(), (SessionState{.active = false}));
  set("IdleHint", true);
  set("Active", true);
  EXPECT_EQ(told_.next(), here);
  emit("PrepareForShutdown", "b", {sdbus::Variant(true)});
  EXPECT_EQ(told_.next(), (SessionState{.poweringOff = true}));
  emit("PrepareForShutdown", "b", {sdbus::Variant(false)});
  EXPECT_EQ(told_.next(), here);
  emit("SessionRemoved", "so",
       {sdbus::Variant("c2"), sdbus::Variant(sdbus::ObjectPath("/org/freedesktop/login1/session/c2"))});
  emit("SessionRemoved", "so", {sdbus::Variant("c1"), sdbus::Variant(sdbus::ObjectPath(kSessionPath))});
  EXPECT_EQ(told_.next(), (SessionState{.active = false}));
  EXPECT_TRUE(told_.isQuiet());
}

TEST_F(LoginManager, reportsTheStateThatItFinds) {
  set("LockedHint", true);
  {
    LoginSession session({.sessionId = "c1"});
    EXPECT_EQ(session.observe(told_.observer()), (SessionState{.screenLocked = true}));
  }
  set("LockedHint", false);
}

TEST_F(LoginManager, holdsSleepUpUntilTheVaultIsClosedAndAgainTheNextTime) {
  {
    LoginSession session({.sessionId = "c1"});
    ASSERT_TRUE(session.observe(told_.observer()));
    for (int round = 0; round < 2; ++round) {
      ASSERT_EQ(inhibitorsOnce(1), 1U) << round;
      EXPECT_EQ(inhibitors()[0].get<0>(), "sleep:shutdown");
      EXPECT_EQ(inhibitors()[0].get<3>(), "delay");
      emit("PrepareForSleep", "b", {sdbus::Variant(true)});
      EXPECT_EQ(told_.next(), (SessionState{.asleep = true}));
      EXPECT_EQ(inhibitors().size(), 1U) << "the vault is not closed yet";
      told_.takeHold().reset();
      EXPECT_EQ(inhibitorsOnce(0), 0U);
      emit("PrepareForSleep", "b", {sdbus::Variant(false)});
      EXPECT_EQ(told_.next(), SessionState{});
    }
    EXPECT_EQ(inhibitorsOnce(1), 1U);
  }
  EXPECT_EQ(inhibitorsOnce(0), 0U);
}

TEST_F(LoginManager, whichKnowsNoSessionOfThisUserReportsNothing) {
  LoginSession session({.sessionId = ""});
  EXPECT_EQ(session.observe(told_.observer()), std::nullopt);
}

/// A login manager in as few words as it takes.
class ShortLoginManager {
 public:
  ShortLoginManager() {
    manager_->registerMethod("GetSession").onInterface(kManager).implementedAs([](const std::string&) {
      return sdbus::ObjectPath(kSessionPath);
    });
    manager_->registerMethod("Inhibit").onInterface(kManager).implementedAs(
        [](const std::string&, const std::string&, const std::string&, const std::string&) {
          return sdbus::UnixFd(STDIN_FILENO);
        });
    session_->registerProperty("Active").onInterface(kSession).withGetter([] { return true; });
    session_->registerProperty("LockedHint").onInterface(kSession).withGetter([] { return false; });
    manager_->finishRegistration();
    session_->finishRegistration();
    connection_->enterEventLoopAsync();
  }
  ~ShortLoginManager() { leave(); }
  void leave() { connection_->leaveEventLoop(); }

 private:
  std::unique_ptr<sdbus::IConnection> connection_ = sdbus::createSystemBusConnection("org.freedesktop.login1");
  std::unique_ptr<sdbus::IObject> manager_ = sdbus::createObject(*connection_, kManagerPath);
  std::unique_ptr<sdbus::IObject> session_ = sdbus::createObject(*connection_, kSessionPath);
};

/// A system bus that the test stops.
TEST(LoginSessionWithoutABus, isAbsentAtFirstAndALeftSessionLater) {
  const std::string earlier = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  PrivateBus bus;
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
  {
    LoginSession nobody({.sessionId = "c1"});
    EXPECT_EQ(nobody.observe([](const auto&, const auto&) {}), std::nullopt);
  }
  Told told;
  auto manager = std::make_unique<ShortLoginManager>();
  LoginSession session({.sessionId = "c1", .tryAgain = 50ms});
  EXPECT_EQ(session.observe(told.observer()), SessionState{});
  manager->leave();
  bus.stop();
  EXPECT_EQ(told.next(), (SessionState{.active = false}));
  manager.reset();
  bus.start();
  manager = std::make_unique<ShortLoginManager>();
  std::optional<SessionState> state;
  do state = told.next();
  while (state && !state->active);
  EXPECT_EQ(state, SessionState{});
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", earlier.c_str(), 1);
}

}  // namespace
}  // namespace sorvane::test

int main(int argc, char** argv) {
  if (std::getenv("SORVANE_TEST_LOGIN") == nullptr) {
    std::fputs("skipped: tests/support/with-login-manager starts this program\n", stdout);
    return 77;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
