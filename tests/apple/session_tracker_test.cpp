#include "platform/macos/session_tracker.h"

#include <gtest/gtest.h>

namespace sorvane::test {
namespace {

using platform::SessionEvent;
using platform::SessionTracker;
using State = unlock::SessionState;
using Later = SessionTracker::Later;
using Event = SessionEvent;

constexpr State kLocked{.screenLocked = true};
constexpr State kBehind{.active = false, .screenLocked = true};

class TrackedSession : public ::testing::Test {
 protected:
  std::optional<State> seen_ = State{};
  std::vector<State> told_;
  SessionTracker::Hold held_;
  SessionTracker tracker_{[this] { return seen_; }};

  std::optional<State> begin() {
    return tracker_.begin([this](const State& state, const SessionTracker::Hold& hold) {
      told_.push_back(state);
      held_ = hold;
    });
  }
  /// What the observer is told after the window server says `seen` and the notice came; nullopt: nothing.
  std::optional<State> note(Event event, std::optional<State> seen) {
    seen_ = seen;
    const auto before = told_.size();
    later_ = tracker_.note(event);
    EXPECT_LE(told_.size(), before + 1);
    return told_.size() == before ? std::nullopt : std::optional(told_.back());
  }
  std::optional<Later> later_;
};

TEST_F(TrackedSession, everyWayOutOfTheSessionIsLeftByItsOwnWayBack) {
  struct Row {
    Event leave, back;
    std::optional<State> seenAway;
    State away;
  };
  const Row rows[] = {
      {Event::screenLocked, Event::screenUnlocked, kLocked, kLocked},
      // The window server may be slow to notice, either way.
      {Event::screenLocked, Event::screenUnlocked, State{}, kLocked},
      {Event::resigned, Event::becameActive, kBehind, kBehind},
      {Event::resigned, Event::becameActive, State{}, State{.active = false}},
      {Event::willSleep, Event::didWake, State{}, State{.asleep = true}},
      {Event::willPowerOff, Event::stillRunning, State{}, State{.poweringOff = true}},
  };
  ASSERT_EQ(begin(), State{});
  for (const Row& row : rows) {
    EXPECT_EQ(note(row.leave, row.seenAway), row.away);
    EXPECT_FALSE(told_.back().available());
    // Told twice, as by two of the system's services, it is no news.
    EXPECT_EQ(note(row.leave, row.seenAway), std::nullopt);
    for (const Row& other : rows) {
      if (other.back == row.back) continue;
      note(other.back, row.seenAway);
      EXPECT_FALSE(told_.back().available());
    }
    EXPECT_EQ(note(row.back, State{}), State{});
  }
}

TEST_F(TrackedSession, isLeftUntilEverythingThatLeftItIsOver) {
  begin();
  note(Event::willSleep, State{});
  note(Event::screenLocked, kLocked);
  EXPECT_EQ(note(Event::didWake, kLocked), kLocked);
  EXPECT_EQ(note(Event::screenUnlocked, State{}), State{});
}

TEST_F(TrackedSession, aForgedNoticeOfUnlockingOpensNothing) {
  begin();
  note(Event::screenLocked, kLocked);
  EXPECT_EQ(note(Event::screenUnlocked, kLocked), std::nullopt);
  int looks = 0;
  for (; later_; ++looks) {
    EXPECT_EQ(later_, (Later{Event::lookAgain, SessionTracker::kLookAgain}));
    EXPECT_EQ(note(Event::lookAgain, kLocked), std::nullopt);
    // Other notices meanwhile lead to no second row of looks.
    seen_ = kLocked;
    EXPECT_EQ(tracker_.note(Event::didWake), std::nullopt);
  }
  EXPECT_EQ(looks, SessionTracker::kMostLooks);
  EXPECT_EQ(told_.back(), kLocked);
  EXPECT_EQ(note(Event::screenUnlocked, State{}), State{});
}

TEST_F(TrackedSession, aWindowServerThatLagsBehindIsLookedAtAgain) {
  begin();
  note(Event::screenLocked, kLocked);
  EXPECT_EQ(note(Event::screenUnlocked, kLocked), std::nullopt);
  ASSERT_TRUE(later_);
  EXPECT_EQ(note(Event::lookAgain, State{}), State{});
  EXPECT_EQ(later_, std::nullopt);
}

TEST_F(TrackedSession, aLockedScreenAtTheStartIsNotAskedForAgainAndAgain) {
  seen_ = kLocked;
  EXPECT_EQ(begin(), kLocked);
  EXPECT_EQ(note(Event::willSleep, kLocked), (State{.screenLocked = true, .asleep = true}));
  EXPECT_EQ(later_, std::nullopt);
  EXPECT_EQ(note(Event::didWake, kLocked), kLocked);
  EXPECT_EQ(later_, std::nullopt);
}

TEST_F(TrackedSession, whatLeftItUnnoticedIsSeenAtTheNextNotice) {
  begin();
  EXPECT_EQ(note(Event::didWake, kLocked), kLocked);
  EXPECT_EQ(note(Event::didWake, std::nullopt), (State{.active = false}));
}

TEST_F(TrackedSession, shuttingDownIsTakenBackWhenTheProcessIsStillThere) {
  begin();
  note(Event::willPowerOff, State{});
  EXPECT_EQ(later_, (Later{Event::stillRunning, SessionTracker::kPowerOffLimit}));
  EXPECT_EQ(note(Event::screenUnlocked, State{}), std::nullopt);
}

TEST_F(TrackedSession, aHoldIsHandedOnEvenWhereTheStateIsKnown) {
  begin();
  note(Event::willSleep, State{});
  const auto hold = std::make_shared<const int>();
  const auto isHeld = [&] { return hold.use_count() > 1; };
  tracker_.note(Event::willSleep, hold);
  EXPECT_EQ(told_.size(), 2U);
  EXPECT_TRUE(isHeld());
  held_ = nullptr;
  EXPECT_FALSE(isHeld()) << "the tracker keeps the computer awake";
}

TEST_F(TrackedSession, withoutASessionNothingIsTold) {
  // A notice before the first look is not lost: the look finds what it told.
  EXPECT_EQ(tracker_.note(Event::willSleep), std::nullopt);
  seen_ = std::nullopt;
  EXPECT_EQ(begin(), std::nullopt);
  EXPECT_EQ(note(Event::screenLocked, kLocked), std::nullopt);
  EXPECT_EQ(later_, std::nullopt);
}

}  // namespace
}  // namespace sorvane::test
