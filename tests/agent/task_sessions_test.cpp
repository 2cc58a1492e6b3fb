#include "agent/task_sessions.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <thread>

#include "support/doubles.h"

namespace sorvane::agent {
namespace {

using namespace std::chrono_literals;
using Case = TaskSessions::Failure::Case;

class Sessions : public ::testing::Test {
 protected:
  // The clock is moved by hand, and so is the expiry: the timer's own thread would race with both.
  Sessions() { sessions_.close(); }
  TaskSessions::NewSession fresh(std::int64_t seconds = 60, const std::string& owner = "a", bool proxyOnly = false) {
    TaskSessions::NewSession session;
    session.owner = owner;
    session.client = "Agent";
    session.environment = "shop";
    session.durationSeconds = seconds;
    session.snapshot.proxyOnly = proxyOnly;
    session.snapshot.lines.emplace_back("KEY=value-of-the-test");
    session.epoch = sessions_.epoch();
    session.audit = [this](std::string_view action) { audited_.emplace_back(action); };
    return session;
  }
  std::optional<Case> beginFails(TaskSessions::NewSession session) {
    try {
      sessions_.begin(std::move(session));
    } catch (const TaskSessions::Failure& failure) {
      return failure.kind();
    }
    return std::nullopt;
  }
  bool isLive(const std::string& id, const std::string& owner = "a") {
    try {
      return sessions_.lookup(id, owner).snapshot->lines.size() == 1;
    } catch (const TaskSessions::Failure& failure) {
      EXPECT_EQ(failure.kind(), Case::unavailable);
      return false;
    }
  }

  test::ManualClock clock_;
  std::vector<std::string> audited_;
  TaskSessions sessions_{clock_};
};

TEST_F(Sessions, aDurationIsBoundedByWhatTheSessionHolds) {
  struct Row {
    std::int64_t seconds;
    bool proxyOnly, accepted;
  };
  for (const Row& row : {Row{60, false, true}, Row{86400, false, true}, Row{59, false, false}, Row{86401, false, false},
                         Row{604800, false, false}, Row{604800, true, true}, Row{604801, true, false},
                         Row{INT64_MIN, true, false}, Row{INT64_MAX, true, false}}) {
    EXPECT_EQ(beginFails(fresh(row.seconds, "a", row.proxyOnly)).has_value(), !row.accepted) << row.seconds;
  }
}

TEST_F(Sessions, theThirtyThirdIsRefusedUntilOneEnds) {
  std::string first;
  for (std::size_t i = 0; i < kMaxSessions; ++i) {
    const std::string id = sessions_.begin(fresh()).id;
    if (i == 0) first = id;
  }
  EXPECT_EQ(beginFails(fresh()), Case::capacity);
  EXPECT_EQ(audited_.size(), kMaxSessions) << "a refused session leaves no event";
  sessions_.end(first, "a");
  EXPECT_EQ(beginFails(fresh()), std::nullopt);
}

TEST_F(Sessions, anotherClientsSessionAndAPassedOneAreEquallyUnavailable) {
  const std::string id = sessions_.begin(fresh()).id;
  EXPECT_TRUE(isLive(id));
  EXPECT_FALSE(isLive(id, "b"));
  EXPECT_THROW(sessions_.end(id, "b"), TaskSessions::Failure);
  clock_.setWall(clock_.now() + 24h);
  EXPECT_TRUE(isLive(id)) << "setting the wall clock ends nothing";
  clock_.advance(59s);
  EXPECT_TRUE(isLive(id));
  clock_.advance(1s);
  EXPECT_FALSE(isLive(id));
  EXPECT_TRUE(sessions_.list("a").empty());
}

TEST_F(Sessions, anExpiredSessionIsToldToObserversAndStopsWhatRunsUnderIt) {
  std::vector<std::string> told;
  const auto token = sessions_.observeEnds([&](const std::vector<TaskSessionInfo>& infos) {
    for (const TaskSessionInfo& info : infos) told.push_back(info.id);
  });
  const std::string brief = sessions_.begin(fresh(60)).id, longer = sessions_.begin(fresh(120)).id;
  const std::stop_token running = sessions_.lookup(brief, "a").ended;
  clock_.advance(60s);
  sessions_.expire();
  EXPECT_TRUE(running.stop_requested());
  EXPECT_EQ(told, std::vector{brief});
  EXPECT_TRUE(isLive(longer));
  sessions_.stopObserving(token);
  sessions_.endAll();
  EXPECT_EQ(told.size(), 1U);
  EXPECT_EQ(audited_, (std::vector<std::string>{"task_session_start", "task_session_start", "task_session_end",
                                                "task_session_end"}));
}

TEST_F(Sessions, aChangeOfAccessEndsWhatItNamesAndCancelsWhatIsBeingApproved) {
  const std::string shop = sessions_.begin(fresh()).id;
  TaskSessions::NewSession waiting = fresh(), duringAudit = fresh();
  sessions_.revoke(vault::RevokeEnvironments{{"another"}});
  EXPECT_TRUE(isLive(shop));
  EXPECT_EQ(beginFails(std::move(waiting)), Case::cancelled) << "any change makes an approval stale";
  duringAudit.epoch = sessions_.epoch();
  duringAudit.audit = [&](std::string_view action) {
    audited_.emplace_back(action);
    if (action == "task_session_start") sessions_.revoke(vault::RevokeEnvironments{{"shop"}});
  };
  EXPECT_EQ(beginFails(std::move(duringAudit)), Case::cancelled);
  EXPECT_FALSE(isLive(shop));
  EXPECT_TRUE(sessions_.listAll().empty());
  sessions_.begin(fresh());
  sessions_.revoke(vault::RevokeAll{});
  EXPECT_TRUE(sessions_.listAll().empty());
}

TEST_F(Sessions, aSessionWhoseStartCannotBeLoggedIsNotBegun) {
  TaskSessions::NewSession session = fresh();
  session.audit = [](std::string_view) { throw base::Error("The disk is full."); };
  try {
    sessions_.begin(std::move(session));
    FAIL() << "it was begun";
  } catch (const TaskSessions::Failure& failure) {
    EXPECT_EQ(failure.kind(), Case::mutation);
    EXPECT_EQ(failure.sentence(), "The disk is full.");
  }
  EXPECT_TRUE(sessions_.listAll().empty());
}

TEST_F(Sessions, theOwnerOfTheVaultEndsAnySessionByTheStartOfItsId) {
  const std::string id = sessions_.begin(fresh(60, "someone")).id;
  EXPECT_THROW(sessions_.endAny(id.substr(0, 7)), TaskSessions::Failure);
  EXPECT_THROW(sessions_.endAny(""), TaskSessions::Failure);
  EXPECT_EQ(sessions_.endAny(id.substr(0, 8)).id, id);
  EXPECT_THROW(sessions_.endAny(id.substr(0, 8)), TaskSessions::Failure);
}

TEST_F(Sessions, manyThreadsNeverGetMoreThanTheLimit) {
  std::atomic<std::size_t> begun{0};
  std::vector<std::jthread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20; ++i) {
        TaskSessions::NewSession session = fresh();
        session.audit = [](std::string_view) {};
        try {
          sessions_.begin(std::move(session));
          ++begun;
        } catch (const TaskSessions::Failure&) {
        }
      }
    });
  }
  threads.clear();
  EXPECT_EQ(begun, kMaxSessions);
  EXPECT_EQ(sessions_.listAll().size(), kMaxSessions);
}

TEST_F(Sessions, manyThatComeAndGoLeaveNoThreadAndNoDescriptor) {
  const auto count = [](const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
  };
  for (std::size_t i = 1; i < kMaxSessions; ++i) sessions_.begin(fresh(3600));
  const auto threads = count("/proc/self/task"), descriptors = count("/proc/self/fd");
  for (int i = 0; i < 10'000; ++i) sessions_.end(sessions_.begin(fresh()).id, "a");
  EXPECT_EQ(count("/proc/self/task"), threads);
  EXPECT_EQ(count("/proc/self/fd"), descriptors);
  EXPECT_EQ(sessions_.listAll().size(), kMaxSessions - 1);
}

TEST(DeadlineTimer, callsWhenTheInstantHasPassedAndAgainWhenArmedAgain) {
  const base::SystemClock clock;
  std::promise<void> first, second;
  int calls = 0;
  base::DeadlineTimer timer(clock, [&] { (++calls == 1 ? first : second).set_value(); });
  timer.arm(clock.instant() + 24h);
  timer.arm(clock.instant() + 5ms);
  first.get_future().wait();
  timer.arm(clock.instant() + 24h);
  timer.arm(clock.instant());
  second.get_future().wait();
}

}  // namespace
}  // namespace sorvane::agent
