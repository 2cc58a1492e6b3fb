#include "proxy/meter.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "proxy/budget_notifier.h"
#include "proxy/in_memory_meter.h"
#include "proxy/velocity_stop.h"
#include "support/doubles.h"

namespace sorvane::proxy {
namespace {

class Meter : public testing::Test {
 protected:
  ProxyLimits limits(Micros budget, int rate = 10'000) const {
    ProxyLimits made;
    made.budgetMicros = budget;
    made.requestsPerMinute = rate;
    made.expiresAt = clock_.now() + std::chrono::hours(1);
    return made;
  }
  /// What admission answers, in a word.
  std::string asked(ProxyMeter& meter, const std::string& grant, Micros amount) {
    const ProxyReservation answer = meter.reserve(grant, amount);
    if (const auto* admitted = std::get_if<Admitted>(&answer)) {
      last_ = admitted->id;
      return "admitted";
    }
    if (const auto* limited = std::get_if<RateLimited>(&answer))
      return "wait " + std::to_string(limited->retryAfterSeconds);
    return std::holds_alternative<OverBudget>(answer) ? "over budget" : "closed";
  }
  std::string asked(const std::string& grant, Micros amount) { return asked(meter_, grant, amount); }
  /// Reserves and settles.
  void spend(ProxyMeter& meter, const std::string& grant, Micros charged) {
    ASSERT_EQ(asked(meter, grant, charged), "admitted");
    meter.settle(grant, last_, charged);
  }

  test::ManualClock clock_;
  std::vector<std::string> doubleSettled_;
  InMemoryProxyMeter meter_{clock_,
                            [this](std::string_view id, const ReservationId&) { doubleSettled_.emplace_back(id); }};
  ReservationId last_;
};

TEST_F(Meter, admitsUpToTheRateAndTellsWhenToComeBack) {
  meter_.open("sixty", "sixty", limits(kMostMicros, 60));
  for (int i = 0; i < 60; ++i) ASSERT_EQ(asked("sixty", 0), "admitted") << i;
  EXPECT_EQ(asked("sixty", 0), "wait 1");
  clock_.advance(std::chrono::milliseconds(1500));
  EXPECT_EQ(asked("sixty", 0), "admitted");
  EXPECT_EQ(asked("sixty", 0), "wait 1");
  clock_.advance(std::chrono::hours(1) - std::chrono::seconds(10));
  for (int i = 0; i < 60; ++i) ASSERT_EQ(asked("sixty", 0), "admitted") << i;
  EXPECT_EQ(asked("sixty", 0), "wait 1");

  meter_.open("one", "one", limits(kMostMicros, 1));
  EXPECT_EQ(asked("one", 0), "admitted");
  EXPECT_EQ(asked("one", 0), "wait 60");
  meter_.open("none", "none", limits(kMostMicros, 0));
  EXPECT_EQ(asked("none", 0), "wait 60");
}

TEST_F(Meter, aRefusalForTheBudgetTakesNoRateAndOneForTheRateNoBudget) {
  meter_.open("grant", "pool", limits(100, 1));
  EXPECT_EQ(asked("grant", 101), "over budget");
  EXPECT_EQ(asked("grant", 100), "admitted");
  EXPECT_EQ(asked("grant", 1), "wait 60");
  meter_.release("grant", last_);
  EXPECT_EQ(meter_.spendOf("grant")->reservedMicros, 0);
  clock_.advance(std::chrono::minutes(1));
  EXPECT_EQ(asked("grant", 100), "admitted");
}

TEST_F(Meter, sumsStayAtTheLargestNumber) {
  meter_.open("grant", "pool", limits(kMostMicros));
  EXPECT_EQ(asked("grant", kMostMicros), "admitted");
  EXPECT_EQ(asked("grant", kMostMicros), "admitted") << "a budget of the largest number admits a sum that stays there";
  EXPECT_EQ(meter_.spendOf("grant")->reservedMicros, kMostMicros);
  meter_.settle("grant", last_, kMostMicros);
  EXPECT_EQ(meter_.spendOf("grant")->spentMicros, kMostMicros);
  meter_.open("less", "less", limits(kMostMicros - 1));
  EXPECT_EQ(asked("less", 1), "admitted");
  EXPECT_EQ(asked("less", kMostMicros), "over budget");
}

TEST_F(Meter, whatIsSettledTwiceOrByAnotherGrantIsReportedAndChangesNothing) {
  meter_.open("a", "shared", limits(1'000));
  meter_.open("b", "shared", limits(9'000));
  EXPECT_EQ(asked("a", 600), "admitted");
  meter_.settle("b", last_, 600);
  EXPECT_EQ(meter_.spendOf("b")->spentMicros, 0);
  meter_.settle("a", last_, 250);
  meter_.settle("a", last_, 250);
  meter_.release("a", last_);
  EXPECT_EQ(doubleSettled_, (std::vector<std::string>{"b", "a"}));
  const ProxySpend spend = *meter_.spendOf("b");
  EXPECT_EQ(spend.spentMicros, 250);
  EXPECT_EQ(spend.reservedMicros, 0);
  EXPECT_EQ(spend.budgetMicros, 1'000) << "the pool's limits are those of its first grant";
  EXPECT_EQ(spend.calls, 0);
  EXPECT_EQ(meter_.spendOfPool("shared")->calls, 1);
  EXPECT_EQ(asked("b", 751), "over budget");
  EXPECT_EQ(asked("b", 750), "admitted");
}

TEST_F(Meter, closesWithTheTimeWithTheGrantAndAfterADiscrepancy) {
  meter_.open("a", "shared", limits(1'000));
  meter_.open("b", "shared", limits(1'000));
  EXPECT_EQ(asked("nobody", 1), "closed");
  meter_.close("a");
  EXPECT_EQ(asked("a", 1), "closed");
  EXPECT_EQ(asked("b", 1), "admitted");
  meter_.exhaust("b");
  EXPECT_EQ(asked("b", 1), "over budget");
  meter_.open("c", "c", limits(1'000));
  clock_.setWall(clock_.now() + std::chrono::hours(1));
  EXPECT_EQ(asked("c", 1), "closed");
}

TEST_F(Meter, forgetsAClosedGrantWithItsLastCallAndItsPoolWithTheLastGrant) {
  meter_.open("a", "shared", limits(1'000));
  meter_.open("b", "shared", limits(1'000));
  EXPECT_EQ(asked("a", 400), "admitted");
  meter_.close("a");
  EXPECT_EQ(asked("b", 601), "over budget") << "what is in flight of an ended grant stays reserved";
  meter_.settle("a", last_, 300);
  EXPECT_FALSE(meter_.spendOf("a"));
  EXPECT_EQ(meter_.spendOf("b")->spentMicros, 300);
  meter_.close("b");
  EXPECT_FALSE(meter_.spendOfPool("shared"));
  EXPECT_EQ(meter_.size().grants + meter_.size().pools, 0U);
}

TEST_F(Meter, sixtyFourThreadsAdmitExactlyWhatTheBudgetHolds) {
  constexpr Micros kCall = 700'280;
  meter_.open("a", "shared", limits(1'428 * kCall + kCall - 1));
  meter_.open("b", "shared", limits(1));
  std::atomic<int> admitted = 0, refused = 0;
  base::Mutex mutex;
  std::set<ReservationId> ids;
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 64; ++t) {
      threads.emplace_back([&, grant = std::string(t % 2 == 0 ? "a" : "b"), settles = t % 3] {
        for (int i = 0; i < 100; ++i) {
          const ProxyReservation answer = meter_.reserve(grant, kCall);
          const auto* const held = std::get_if<Admitted>(&answer);
          if (held == nullptr) {
            refused += std::holds_alternative<OverBudget>(answer) ? 1 : 0;
            continue;
          }
          ++admitted;
          {
            const base::Lock lock(mutex);
            ids.insert(held->id);
          }
          if (settles > 0) meter_.settle(grant, held->id, kCall);
        }
      });
    }
  }
  EXPECT_EQ(admitted, 1'428);
  EXPECT_EQ(refused, 6'400 - 1'428);
  EXPECT_EQ(ids.size(), 1'428U);
  const ProxySpend spend = *meter_.spendOfPool("shared");
  EXPECT_EQ(spend.spentMicros + spend.reservedMicros, 1'428 * kCall);
  EXPECT_TRUE(doubleSettled_.empty());
}

class Notices : public Meter {
 protected:
  std::vector<std::string> taken() { return std::exchange(posted_, {}); }

  std::vector<std::string> posted_;
  BudgetNotifier notifier_{
      {[this](const std::string& title, const std::string& body) { posted_.push_back(title + ": " + body); },
       [](std::string_view id) { return id == "a" ? "Agent in shop" : ""; }}};
  NotifyingProxyMeter noticing_{meter_, notifier_};
};

TEST_F(Notices, tellOnceOfEachCaseOfAPool) {
  const std::vector<std::string> kNearly{
      "sorvane · agent budget at 80%: Agent in shop has used 80% of its $5.00 budget for calls through sorvane."};
  const std::vector<std::string> kUp{
      "sorvane · agent budget used up: Agent in shop has used its $5.00 budget for calls through sorvane. New calls "
      "are "
      "refused."};
  const std::vector<std::string> kStopped{
      "sorvane · agent calls stopped: Agent in shop: a provider reported more use than sorvane allowed for, so sorvane "
      "stopped these calls. Start a new session to continue."};
  noticing_.open("a", "shared", limits(5'000'000));
  noticing_.open("b", "shared", limits(5'000'000));
  spend(noticing_, "a", 3'999'999);
  EXPECT_TRUE(taken().empty());
  spend(noticing_, "a", 1);
  EXPECT_EQ(taken(), kNearly);
  spend(noticing_, "b", 1);
  EXPECT_TRUE(taken().empty());
  spend(noticing_, "a", 999'999);
  EXPECT_EQ(taken(), kUp);
  noticing_.exhaust("a");
  EXPECT_EQ(taken(), kStopped);
  noticing_.exhaust("b");
  EXPECT_TRUE(taken().empty());
  // A later pool of the same name begins anew.
  noticing_.close("a");
  noticing_.close("b");
  noticing_.open("a", "shared", limits(5'000'000));
  spend(noticing_, "a", 4'000'000);
  EXPECT_EQ(taken(), kNearly);
}

TEST_F(Notices, tellOfTheLastCallOfAGrantThatEnded) {
  noticing_.open("a", "own", limits(5'000'000));
  ASSERT_EQ(asked(noticing_, "a", 5'000'000), "admitted");
  noticing_.close("a");
  noticing_.settle("a", last_, 4'000'000);
  EXPECT_EQ(taken().size(), 1u);
  EXPECT_EQ(meter_.size().pools, 0u);
}

TEST_F(Notices, passOverABudgetOfNothingAndHoldNearTheLargest) {
  noticing_.open("a", "none", limits(0));
  spend(noticing_, "a", 0);
  noticing_.open("most", "most", limits(kMostMicros));
  spend(noticing_, "most", kMostMicros / 5 * 3);
  EXPECT_TRUE(taken().empty());
}

class Velocity : public Meter {
 protected:
  Velocity() {
    stop_.setLimit(100);
    stop_.onPause([this](std::string_view id, Micros charged) {
      pauses_.push_back(std::string(id) + " " + std::to_string(charged));
    });
    stop_.open("a", "a", limits(kMostMicros));
    stop_.open("b", "b", limits(kMostMicros));
  }
  std::vector<std::string> pauses_;
  VelocityStop stop_{meter_, clock_};
};

TEST_F(Velocity, pausesOneGrantAtTheLimitOfAMinuteUntilTheOwnersYes) {
  spend(stop_, "a", 600'000);
  clock_.advance(std::chrono::seconds(60));
  spend(stop_, "a", 600'000);
  clock_.advance(std::chrono::seconds(59));
  spend(stop_, "a", 399'999);
  EXPECT_FALSE(stop_.isPaused("a"));
  spend(stop_, "a", 1);
  EXPECT_EQ(pauses_, std::vector<std::string>{"a 1000000"});
  EXPECT_EQ(asked(stop_, "a", 1), "wait 15");
  EXPECT_EQ(asked(stop_, "b", 1), "admitted");
  stop_.resume("a");
  EXPECT_EQ(asked(stop_, "a", 1), "admitted");
  stop_.settle("a", last_, 999'999);
  EXPECT_EQ(pauses_.size(), 1U) << "the minute begins empty after a yes";
}

TEST_F(Velocity, aNoHoldsUntilItIsResumed) {
  ASSERT_EQ(asked(stop_, "a", 1), "admitted");
  const ReservationId early = last_;
  spend(stop_, "a", 2'000'000);
  stop_.settle("a", early, 5'000'000);
  EXPECT_EQ(pauses_.size(), 1U) << "asked once for each pause";
  stop_.stop("a");
  EXPECT_EQ(asked(stop_, "a", 1), "over budget");
  EXPECT_TRUE(stop_.isPaused("a"));
  stop_.resume("a");
  EXPECT_EQ(asked(stop_, "a", 1), "admitted");
  stop_.stop("a");
  EXPECT_FALSE(stop_.isPaused("a")) << "a late no does not end what the owner let go on";
  stop_.setLimit({});
  spend(stop_, "b", 90'000'000);
  EXPECT_FALSE(stop_.isPaused("b"));
}

}  // namespace
}  // namespace sorvane::proxy
