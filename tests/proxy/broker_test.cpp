#include "proxy/broker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <latch>
#include <thread>

#include "proxy/in_memory_meter.h"
#include "proxy/velocity_stop.h"
#include "support/doubles.h"

namespace sorvane::proxy {
namespace {

constexpr std::string_view kEndUnspent = "proxy_grant_end spent $0.00";

class FakeServer final : public ProxyServing {
 public:
  std::uint16_t start() override {
    if (fails_) throw base::Error("No port is free.");
    running_ = true;
    return 4711;
  }
  void stop() override { running_ = false; }
  std::optional<std::uint16_t> port() const override {
    return running_ ? std::optional<std::uint16_t>(4711) : std::nullopt;
  }
  std::atomic<bool> running_ = false, fails_ = false;
};

/// Processes that end when the test says so, told on the test's thread.
class FakeProcesses final : public ProcessWatch {
 public:
  static constexpr pid_t kGone = 66, kUnwatchable = 77;
  Watched watch(pid_t process, std::function<void()> ended) override {
    if (process == kGone) return {State::gone, 0};
    if (process == kUnwatchable) return {State::impossible, 0};
    const base::Lock lock(mutex_);
    watched_.emplace(static_cast<std::uint64_t>(process), std::move(ended));
    return {State::watching, static_cast<std::uint64_t>(process)};
  }
  void forget(std::uint64_t token) override {
    const base::Lock lock(mutex_);
    watched_.erase(token);
  }
  void end(pid_t process) {
    std::function<void()> ended;
    {
      const base::Lock lock(mutex_);
      ended = watched_.at(static_cast<std::uint64_t>(process));
    }
    ended();
  }
  std::size_t size() {
    const base::Lock lock(mutex_);
    return watched_.size();
  }

 private:
  base::Mutex mutex_;
  std::map<std::uint64_t, std::function<void()>> watched_ GUARDED_BY(mutex_);
};

class Broker : public testing::Test {
 protected:
  Broker() {
    grants_.addHandler([this](std::string_view id) {
      const base::Lock lock(mutex_);
      ended_.emplace(id);
      change_.notify_all();
    });
    make().serve({{"sec_a", ProxyProvider::anthropic}, {"sec_o", ProxyProvider::openai}});
  }

  LocalProxyBroker& make() {
    broker_.emplace(LocalProxyBroker::Ports{clock_, grants_, meter_, server_, processes_, [this] { return options_; },
                                            [this](const VelocityQuestion& question, std::function<void(bool)> answer) {
                                              question_ = question;
                                              answer_ = std::move(answer);
                                            }});
    return *broker_;
  }
  NewProxyGrant wanted(std::string owner = "session 1") {
    NewProxyGrant made;
    made.owner = std::move(owner);
    made.caller = "caller 1";
    made.taskSessionId = "1";
    made.environmentId = "proj_1";
    made.environmentName = "shop";
    made.client = "Agent";
    for (const auto& [provider, id] : {std::pair(ProxyProvider::openai, "sec_o"), {ProxyProvider::anthropic, "sec_a"}})
      made.credentials.emplace(provider, ProxyCredential{provider, id, 1, base::SecretText("made-up-value")});
    made.until = clock_.now() + std::chrono::hours(1);
    made.audit = [this](std::string_view action) {
      const base::Lock lock(mutex_);
      audit_.emplace_back(action);
    };
    return made;
  }
  std::string issued(NewProxyGrant made) { return broker_->issue(std::move(made)).lookupId; }
  std::string runGrant(const std::string& run, pid_t helper) {
    NewProxyGrant made = wanted("run " + run);
    made.runId = run;
    return broker_->issueForRun(std::move(made), {helper}).lookupId;
  }
  void spend(const std::string& id, Micros charged) {
    const auto answer = meter_.reserve(id, charged);
    ASSERT_TRUE(std::holds_alternative<Admitted>(answer));
    meter_.settle(id, std::get<Admitted>(answer).id, charged);
  }
  std::vector<std::string> audit() {
    const base::Lock lock(mutex_);
    return std::exchange(audit_, {});
  }
  void awaitEnd(const std::string& id) {
    base::Lock lock(mutex_);
    while (!ended_.contains(id)) change_.wait(lock.mutex());
  }
  bool isOver(const std::string& id) {
    return !broker_->isLive(id) && std::holds_alternative<Closed>(meter_.reserve(id, 1)) && !meter_.spendOf(id);
  }

  test::ManualClock clock_;
  LocalProxyGrants grants_{clock_};
  InMemoryProxyMeter counted_{clock_};
  VelocityStop meter_{counted_, clock_};
  FakeServer server_;
  FakeProcesses processes_;
  ProxyOptions options_;
  std::optional<VelocityQuestion> question_;
  std::function<void(bool)> answer_;
  base::Mutex mutex_;
  base::Condition change_;
  std::vector<std::string> audit_ GUARDED_BY(mutex_);
  std::set<std::string, std::less<>> ended_ GUARDED_BY(mutex_);
  std::optional<LocalProxyBroker> broker_;
};

TEST(ProxyAsk, isReadFromThePayloadsTexts) {
  const auto read = [](std::optional<std::string> budget, std::optional<std::string> models) -> std::string {
    const auto answer = proxyAskOf(budget ? &*budget : nullptr, models ? &*models : nullptr);
    if (const auto* refusal = std::get_if<ProxyAskRefusal>(&answer)) return refusal->code + ": " + refusal->message;
    const auto& ask = std::get<ProxyAsk>(answer);
    std::string text = ask.budgetCents ? std::to_string(*ask.budgetCents) : "-";
    for (const auto& name : ask.models.value_or(std::vector<std::string>{})) text += " " + name;
    return text;
  };
  constexpr auto kBudget = "proxy_budget_invalid: proxy_budget_cents must be a whole number of cents, at least 1.";
  constexpr auto kModels = "proxy_models_invalid: proxy_models must list 1 to 64 model names.";
  EXPECT_EQ(read({}, {}), "-");
  EXPECT_EQ(read("250", R"(["m-1","m-2"])"), "250 m-1 m-2");
  EXPECT_EQ(read("99999999999999999999", {}), "9223372036854775807");
  for (const char* text : {"", "0", "-1", "+1", "1.5", " 1", "1e3", "0x10", "007", "five"})
    EXPECT_EQ(read(text, {}), kBudget) << text;
  std::string many = "[\"m\"";
  for (int i = 1; i < 64; ++i) many += ",\"m\"";
  EXPECT_NE(read({}, many + "]"), kModels);
  for (const std::string& text : {many + ",\"m\"]", std::string("[]"), std::string("m"), std::string(R"("m")"),
                                  std::string("[1]"), std::string(R"([""])"), std::string(R"(["a b"])")}) {
    EXPECT_EQ(read({}, text), kModels) << text;
  }
}

TEST_F(Broker, refusesWhatTheOwnerDoesNotAllow) {
  options_.limits.models = AllowedModels{{ProxyProvider::openai, {"m-1"}}, {ProxyProvider::anthropic, {"m-2"}}};
  const auto refused = [&](ProxyAsk ask) {
    const auto refusal = broker_->refusedAsk(ask);
    return refusal ? refusal->code + ": " + refusal->message : "";
  };
  EXPECT_EQ(refused({5'000, {{"m-2", "m-1"}}}), "");
  EXPECT_EQ(refused({0, {}}), "proxy_budget_invalid: proxy_budget_cents must be a whole number of cents, at least 1.");
  EXPECT_EQ(refused({5'001, {{"m-3"}}}),
            "proxy_budget_above_ceiling: proxy_budget_cents is above the most the owner allows an agent to ask for "
            "($50.00). Nothing was asked. Ask for less, or ask the user to raise the limit in sorvane.");
  EXPECT_EQ(refused({{}, {{"m-1", "m-3"}}}),
            "proxy_models_not_allowed: The owner does not allow the model m-3 for agents. Nothing was asked.");
  NewProxyGrant made = wanted();
  made.ask.budgetCents = 5'001;
  const auto codeOf = [&](NewProxyGrant grant) -> std::string {
    try {
      broker_->issue(std::move(grant));
    } catch (const ProxyAskError& error) {
      EXPECT_EQ(std::string(error.what()).find("Nothing was asked."), std::string::npos);
      return error.code();
    }
    return "";
  };
  EXPECT_EQ(codeOf(std::move(made)), "proxy_budget_above_ceiling");
  NewProxyGrant other = wanted();
  other.ask.models = {"m-1"};
  other.credentials.erase(ProxyProvider::openai);
  EXPECT_EQ(codeOf(std::move(other)), "proxy_models_not_allowed") << "the model of a provider without a key";
  EXPECT_TRUE(audit().empty());
}

TEST_F(Broker, boundsAGrantByTheRequestTheOwnerAndTheSession) {
  options_.limits.models = AllowedModels{{ProxyProvider::openai, {"m-1", "both"}},
                                         {ProxyProvider::anthropic, {"both", "m-2"}},
                                         {ProxyProvider::openrouter, {"both"}}};
  NewProxyGrant made = wanted();
  made.ask = {250, {{"both", "m-1", "both"}}};
  const auto grant = grants_.find(issued(std::move(made)));
  EXPECT_EQ(grant->limits.budgetMicros, 2'500'000);
  EXPECT_EQ(grant->limits.expiresAt, clock_.now() + std::chrono::hours(1));
  EXPECT_EQ(grant->limits.models,
            (AllowedModels{{ProxyProvider::openai, {"both", "m-1"}}, {ProxyProvider::anthropic, {"both"}}}));
  EXPECT_EQ(grant->limits.requestsPerMinute, 120);
  EXPECT_EQ(grant->limits.maxConcurrentCalls, 8);
  EXPECT_EQ(grant->limits.callTimeoutSeconds, 600);

  options_.limits.models.reset();
  NewProxyGrant longer = wanted();
  longer.until = clock_.now() + std::chrono::hours(24);
  longer.ask.models = {"any"};
  const auto second = grants_.find(issued(std::move(longer)));
  EXPECT_EQ(second->limits.expiresAt, clock_.now() + std::chrono::hours(8));
  EXPECT_EQ(second->limits.budgetMicros, 5'000'000);
  EXPECT_EQ(second->limits.models->at(ProxyProvider::anthropic), std::vector<std::string>{"any"});
}

TEST_F(Broker, runsTheServerWhileAKeyIsProtectedAndEndsWhatIsNoLongerServed) {
  const std::string both = issued(wanted());
  NewProxyGrant made = wanted("session 2");
  made.credentials.erase(ProxyProvider::openai);
  const std::string one = issued(std::move(made));
  broker_->serve({{"sec_a", ProxyProvider::anthropic}, {"sec_o", ProxyProvider::openrouter}});
  EXPECT_TRUE(isOver(both)) << "the key is another provider's by now";
  EXPECT_TRUE(broker_->isLive(one));
  EXPECT_THROW(broker_->issue(wanted()), ProxyUnavailable);
  broker_->serve({});
  EXPECT_FALSE(broker_->port());
  EXPECT_TRUE(isOver(one));
  EXPECT_THROW(broker_->issue(wanted()), ProxyUnavailable);
  server_.fails_ = true;
  testing::internal::CaptureStderr();
  broker_->serve({{"sec_a", ProxyProvider::anthropic}});
  EXPECT_NE(testing::internal::GetCapturedStderr().find("No port is free."), std::string::npos);
  EXPECT_FALSE(broker_->port());
}

TEST_F(Broker, aGrantThatEndsWhileItBeginsIsHandedToNobody) {
  const std::function<void()> kEnds[] = {
      [&] { broker_->stop(); },
      [&] {
        broker_->serve({{"sec_a", ProxyProvider::anthropic}});
      },
      [&] {
        broker_->stop();
        broker_->serve({{"sec_a", ProxyProvider::anthropic}, {"sec_o", ProxyProvider::openai}});
      }};
  for (const auto& end : kEnds) {
    broker_->serve({{"sec_a", ProxyProvider::anthropic}, {"sec_o", ProxyProvider::openai}});
    audit();
    NewProxyGrant made = wanted();
    made.audit = [&, inner = made.audit](std::string_view action) {
      inner(action);
      if (action == "proxy_grant_start") end();
    };
    EXPECT_THROW(broker_->issue(std::move(made)), ProxyUnavailable);
    EXPECT_EQ(audit(), (std::vector<std::string>{"proxy_grant_start", std::string(kEndUnspent)}));
    EXPECT_TRUE(broker_->statuses().empty());
    EXPECT_EQ(counted_.size().grants, 0U);
  }
}

TEST_F(Broker, aSessionsEndAndAChangedSecretEndTheirGrants) {
  const std::string first = issued(wanted()), second = issued(wanted("session 2"));
  spend(first, 1'234'567);
  audit();
  broker_->endOwner("session 1");
  EXPECT_EQ(audit(), std::vector<std::string>{"proxy_grant_end spent $1.24"});
  EXPECT_TRUE(isOver(first));
  broker_->endCarrying("sec_x");
  EXPECT_TRUE(broker_->isLive(second));
  broker_->endCarrying("sec_o");
  EXPECT_TRUE(isOver(second));
}

TEST_F(Broker, aGrantEndsByItselfWithItsTime) {
  std::promise<std::string> expired;
  grants_.onExpired([&](std::string_view id) { expired.set_value(std::string(id)); });
  NewProxyGrant made = wanted();
  made.until = clock_.now() + std::chrono::seconds(30);
  const std::string id = issued(std::move(made));
  clock_.advance(std::chrono::seconds(31));
  issued(wanted("session 2"));
  EXPECT_EQ(expired.get_future().get(), id);
  EXPECT_TRUE(isOver(id));
}

TEST_F(Broker, summariesAndUsageCountEachPoolOnce) {
  const std::string session = issued(wanted());
  const std::string first = runGrant("r1", 10), second = runGrant("r1", 10);
  spend(session, 10'001);
  spend(first, 2'000'000);
  spend(second, 1'000'000);
  const auto summary = *broker_->summaryOf(session);
  EXPECT_EQ(summary.display, "qzt_local_" + session);
  EXPECT_EQ(summary.providers, (std::vector{ProxyProvider::anthropic, ProxyProvider::openai}));
  EXPECT_EQ(summary.spentCents, 2);
  EXPECT_EQ(summary.budgetCents, 500);
  EXPECT_EQ(summary.calls, 1);
  EXPECT_EQ(broker_->summaryOf(second)->spentCents, 300);
  EXPECT_EQ(broker_->summaryOf(second)->calls, 1);
  const ProxyCallerUsage usage = broker_->usageOf("caller 1");
  EXPECT_EQ(usage.spentMicros, 3'010'001);
  EXPECT_EQ(usage.budgetMicros, 10'000'000);
  EXPECT_EQ(usage.calls, 3);
  EXPECT_EQ(broker_->usageOf("caller 2").budgetMicros, 0);
  EXPECT_EQ(broker_->statuses().size(), 3U);
  meter_.close(session);
  EXPECT_EQ(broker_->summaryOf(session)->spentCents, 0) << "the meter no longer knows it";
  EXPECT_EQ(broker_->summaryOf(session)->budgetCents, 500);
}

TEST_F(Broker, aRunsGrantsShareOneBudgetAndEndWithTheHelper) {
  const std::string first = runGrant("r1", 10), second = runGrant("r1", 10), other = runGrant("r2", 20);
  spend(first, 3'000'000);
  EXPECT_TRUE(std::holds_alternative<OverBudget>(meter_.reserve(second, 2'000'001)));
  EXPECT_FALSE(broker_->endRun("r1", "caller 2"));
  EXPECT_FALSE(broker_->endRun("r3", "caller 1"));
  NewProxyGrant foreign = wanted();
  foreign.runId = "r1";
  foreign.caller = "caller 2";
  EXPECT_THROW(broker_->issueForRun(std::move(foreign), {10}), ProxyUnavailable);
  processes_.end(10);
  EXPECT_TRUE(isOver(first));
  EXPECT_TRUE(isOver(second));
  EXPECT_TRUE(broker_->isLive(other));
  EXPECT_TRUE(broker_->endRun("r2", "caller 1"));
  EXPECT_FALSE(broker_->endRun("r2", "caller 1"));
  EXPECT_TRUE(isOver(other));
  EXPECT_EQ(processes_.size(), 0U) << "nothing is watched for a run that is over";
  EXPECT_TRUE(isOver(runGrant("r4", FakeProcesses::kGone)));
}

TEST_F(Broker, aRunThatCannotBeWatchedEndsTenMinutesAfterItsLastCall) {
  const std::string unknown = runGrant("r1", 0), unwatchable = runGrant("r2", FakeProcesses::kUnwatchable),
                    watched = runGrant("r3", 10);
  // The clock stands still, so the timer is told of each change by a grant that is issued.
  const auto waitFor = [&](const std::string& id) {
    broker_->end(issued(wanted("session 2")));
    awaitEnd(id);
  };
  clock_.advance(std::chrono::minutes(9));
  const auto held = meter_.reserve(unknown, 1);
  clock_.advance(std::chrono::minutes(1));
  waitFor(unwatchable);
  EXPECT_TRUE(broker_->isLive(unknown)) << "it called a minute ago";
  clock_.advance(std::chrono::minutes(15));
  const std::string probe = runGrant("r4", 0);
  clock_.advance(std::chrono::minutes(10));
  waitFor(probe);
  EXPECT_TRUE(broker_->isLive(unknown)) << "a call is in flight";
  meter_.settle(unknown, std::get<Admitted>(held).id, 1);
  clock_.advance(kIdleRun);
  waitFor(unknown);
  EXPECT_TRUE(broker_->isLive(watched));
}

TEST_F(Broker, asksTheOwnerAboutAGrantThatSpendsTooFast) {
  options_.velocityCentsPerMinute = 100;
  broker_->serve({{"sec_a", ProxyProvider::anthropic}, {"sec_o", ProxyProvider::openai}});
  const std::string id = issued(wanted());
  spend(id, 1'000'001);
  ASSERT_TRUE(question_);
  EXPECT_EQ(question_->lookupId, id);
  EXPECT_EQ(question_->client + " " + question_->environmentName, "Agent shop");
  EXPECT_EQ(question_->chargedCents, 101);
  EXPECT_EQ(question_->limitCents, 100);
  EXPECT_TRUE(broker_->statuses()[0].paused);
  answer_(true);
  EXPECT_FALSE(broker_->statuses()[0].paused);
  spend(id, 1'000'001);
  answer_(false);
  EXPECT_TRUE(std::holds_alternative<OverBudget>(meter_.reserve(id, 1)));
  broker_->resume(id);
  spend(id, 1);
  broker_.reset();
  answer_(true);
}

TEST_F(Broker, manyThreadsIssueAndEndWhileItIsStoppedAndServed) {
  std::latch begin(9);
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
        begin.arrive_and_wait();
        for (int i = 0; i < 50; ++i) {
          const std::string run = "r" + std::to_string(t) + "." + std::to_string(i);
          try {
            const std::string id = t % 2 == 0 ? runGrant(run, 100 + t * 50 + i) : issued(wanted(run));
            meter_.reserve(id, 1);
            broker_->usageOf("caller 1");
            broker_->statuses();
            if (i % 2 == 0) broker_->end(id);
          } catch (const ProxyUnavailable&) {
          }
        }
      });
    }
    begin.arrive_and_wait();
    for (int i = 0; i < 50; ++i) {
      broker_->serve({{"sec_a", ProxyProvider::anthropic}, {"sec_o", ProxyProvider::openai}});
      if (i % 5 == 0) broker_->stop();
    }
  }
  broker_->stop();
  EXPECT_TRUE(broker_->statuses().empty());
  EXPECT_EQ(processes_.size(), 0U);
  const auto lines = audit();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "proxy_grant_start"),
            std::count(lines.begin(), lines.end(), kEndUnspent));
}

}  // namespace
}  // namespace sorvane::proxy
