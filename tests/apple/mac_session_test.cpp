#include <IOKit/IOMessage.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <stdexcept>
#include <thread>

#include "apple/fake/mac.h"
#include "apple/fake/objects.h"
#include "platform/macos/main_loop.h"
#include "platform/macos/managed_settings.h"
#include "platform/macos/screen_notices.h"
#include "platform/macos/session_state.h"
#include "platform/macos/sleep_notices.h"

namespace sorvane::test {
namespace {

using apple::FakeMac;
using platform::runWithMainLoop;
using platform::SessionEvent;
using unlock::SessionState;

TEST(CurrentSession, isWhatTheWindowServerSays) {
  struct Row {
    std::optional<std::map<std::string, FakeMac::Value>> says;
    std::optional<SessionState> state;
  };
  const SessionState locked{.screenLocked = true}, behind{.active = false, .screenLocked = true};
  const Row rows[] = {
      {std::nullopt, std::nullopt},
      {{{}}, SessionState{}},
      {{{{"kCGSSessionOnConsoleKey", true}}}, SessionState{}},
      {{{{"CGSSessionScreenIsLocked", true}}}, locked},
      {{{{"CGSSessionScreenIsLocked", 1.0}}}, locked},
      {{{{"CGSSessionScreenIsLocked", false}, {"kCGSSessionOnConsoleKey", 1.0}}}, SessionState{}},
      {{{{"CGSSessionScreenIsLocked", false}, {"kCGSSessionOnConsoleKey", false}}}, behind},
      {{{{"kCGSSessionOnConsoleKey", 0.0}}}, behind},
      {{{{"CGSSessionScreenIsLocked", std::string("yes")}}}, SessionState{}},
  };
  FakeMac mac;
  for (std::size_t index = 0; index < std::size(rows); ++index) {
    mac.session = rows[index].says;
    EXPECT_EQ(platform::currentSession(), rows[index].state) << "row " << index;
  }
}

TEST(ManagedFollowsSession, isWhatTheOrganizationForces) {
  struct Row {
    std::string domain;
    std::optional<FakeMac::Preference> preference;
    std::optional<bool> follows;
    std::string warning;
  };
  const std::string garbled =
      "The organization's setting UnlockFollowsSession in app.sorvane is neither true nor false, so it counts as "
      "false. "
      "Ask whoever looks after this Mac to put it right.";
  const Row rows[] = {
      {"app.sorvane", std::nullopt, std::nullopt, ""},
      {"app.sorvane", {{true, true}}, true, ""},
      {"app.sorvane", {{false, true}}, false, ""},
      {"app.sorvane", {{1.0, true}}, true, ""},
      {"app.sorvane", {{0.0, true}}, false, ""},
      {"app.sorvane", {{std::string("maybe"), true}}, false, garbled},
      {"app.sorvane", {{std::string("YES"), true}}, true, ""},
      {"app.sorvane", {{std::string("true"), true}}, true, ""},
      {"app.sorvane", {{std::string("No"), true}}, false, ""},
      // A person's own setting of that name, and another application's.
      {"app.sorvane", {{true, false}}, std::nullopt, ""},
      {"app.another", {{true, true}}, std::nullopt, ""},
  };
  FakeMac mac;
  for (std::size_t index = 0; index < std::size(rows); ++index) {
    SCOPED_TRACE(index);
    mac.preferences.clear();
    if (rows[index].preference) {
      mac.preferences[rows[index].domain]["UnlockFollowsSession"] = *rows[index].preference;
    }
    std::string warning;
    EXPECT_EQ(platform::managedFollowsSession(platform::kManagedSettings, [&](const auto& text) { warning += text; }),
              rows[index].follows);
    EXPECT_EQ(warning, rows[index].warning);
  }
}

TEST(ScreenNotices, tellLockingAndUnlockingUntilTheyEnd) {
  FakeMac mac;
  std::vector<SessionEvent> told;
  {
    const platform::ScreenNotices notices([&](SessionEvent event) { told.push_back(event); });
    for (const char* const name : {"com.apple.screenIsLocked", "com.apple.screensaver.didstart",
                                   "com.apple.screenIsUnlocked", "com.apple.screenIsLocked"}) {
      mac.post(name);
    }
  }
  mac.post("com.apple.screenIsUnlocked");
  EXPECT_EQ(told, (std::vector{SessionEvent::screenLocked, SessionEvent::screenUnlocked, SessionEvent::screenLocked}));
}

class Sleep : public ::testing::Test {
 protected:
  using Numbers = std::vector<std::intptr_t>;

  FakeMac mac_;
  std::vector<SessionEvent> told_;
  unlock::SessionSignals::Hold hold_;

  std::unique_ptr<platform::SleepNotices> notices() {
    return std::make_unique<platform::SleepNotices>([this](SessionEvent event, const auto& hold) {
      told_.push_back(event);
      hold_ = hold;
    });
  }
};

TEST_F(Sleep, waitsForTheLastCopyOfTheHoldOnWhicheverThread) {
  const auto notices = this->notices();
  ASSERT_TRUE(notices->areTold());
  mac_.power(kIOMessageSystemWillSleep, 7);
  std::thread lock([copy = hold_]() mutable { copy.reset(); });
  lock.join();
  EXPECT_EQ(mac_.allowed(), Numbers{});
  hold_.reset();
  EXPECT_EQ(mac_.allowed(), Numbers{7});
  mac_.power(kIOMessageSystemHasPoweredOn, 8);
  EXPECT_EQ(hold_, nullptr);
  EXPECT_EQ(told_, (std::vector{SessionEvent::willSleep, SessionEvent::didWake}));
}

TEST_F(Sleep, ofAnIdleComputerIsAllowedAndNoNews) {
  const auto notices = this->notices();
  mac_.power(kIOMessageCanSystemSleep, 3);
  EXPECT_EQ(mac_.allowed(), Numbers{3});
  EXPECT_TRUE(told_.empty());
}

TEST_F(Sleep, isAllowedByAHoldThatOutlivesTheNotices) {
  auto notices = this->notices();
  mac_.power(kIOMessageSystemWillSleep, 7);
  notices.reset();
  mac_.power(kIOMessageSystemWillSleep, 8);
  EXPECT_EQ(told_.size(), 1U);
  EXPECT_EQ(mac_.openConnections(), 1);
  hold_.reset();
  EXPECT_EQ(mac_.allowed(), Numbers{7});
  EXPECT_EQ(mac_.openConnections(), 0);
}

TEST_F(Sleep, isHeldUpByNobodyWhereTheSystemDoesNotRegister) {
  mac_.refusesPower = true;
  EXPECT_FALSE(notices()->areTold());
}

TEST(MainLoop, theBodyRunsBesideItAndItsWorkWithinIt) {
  FakeMac mac;
  const auto main = std::this_thread::get_id();
  std::vector<std::thread::id> threads;
  const int result = runWithMainLoop([&] {
    threads.push_back(std::this_thread::get_id());
    platform::onMainLoop([&] {
      threads.push_back(std::this_thread::get_id());
      platform::onMainLoop([&] { threads.push_back(std::this_thread::get_id()); });
    });
    return 42;
  });
  EXPECT_EQ(result, 42);
  ASSERT_EQ(threads.size(), 3U);
  EXPECT_NE(threads[0], main);
  EXPECT_EQ(threads[1], main);
  EXPECT_EQ(threads[2], main);
}

TEST(MainLoop, whatIsThrownReachesWhoeverWaits) {
  FakeMac mac;
  const auto fails = []() -> int { throw std::runtime_error("made up"); };
  EXPECT_THROW(runWithMainLoop(fails), std::runtime_error);
  EXPECT_EQ(runWithMainLoop([&] {
              EXPECT_THROW(platform::onMainLoop([&] { fails(); }), std::runtime_error);
              return 1;
            }),
            1);
}

TEST(MainLoop, goesOnWhenSomebodyElseStopsIt) {
  FakeMac mac;
  int done = 0;
  runWithMainLoop([&] {
    for (int i = 0; i < 3; ++i) {
      platform::onMainLoop([] { CFRunLoopStop(CFRunLoopGetMain()); });
      platform::onMainLoop([&] { ++done; });
    }
    return 0;
  });
  EXPECT_EQ(done, 3);
}

TEST(MainLoop, manyThreadsGetTheirWorkDone) {
  FakeMac mac;
  int done = 0;  // of the main thread
  runWithMainLoop([&] {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        for (int j = 0; j < 200; ++j) platform::onMainLoop([&] { ++done; });
      });
    }
    return 0;
  });
  EXPECT_EQ(done, 1600);
}

TEST(MainLoop, signalsGoToTheBodyAndItHasAStackToWorkOn) {
  FakeMac mac;
  const auto isBlocked = [](int number) {
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, number) == 1;
  };
  ASSERT_FALSE(isBlocked(SIGTERM));
  std::size_t stack = 0;
  bool bodyBlocks = true, mainBlocks = false;
  runWithMainLoop([&] {
    pthread_attr_t attributes;
    ::pthread_getattr_np(::pthread_self(), &attributes);
    ::pthread_attr_getstacksize(&attributes, &stack);
    ::pthread_attr_destroy(&attributes);
    bodyBlocks = isBlocked(SIGTERM);
    platform::onMainLoop([&] { mainBlocks = isBlocked(SIGTERM) && isBlocked(SIGHUP); });
    return 0;
  });
  EXPECT_GE(stack, platform::kBodyStackBytes);
  EXPECT_FALSE(bodyBlocks);
  EXPECT_TRUE(mainBlocks);
  EXPECT_FALSE(isBlocked(SIGTERM));
}

}  // namespace
}  // namespace sorvane::test
