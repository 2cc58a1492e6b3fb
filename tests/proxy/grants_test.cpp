#include "proxy/grants.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "base/codec.h"
#include "base/error.h"
#include "proxy/options.h"
#include "proxy/token.h"
#include "support/doubles.h"

namespace sorvane::proxy {
namespace {

NewGrantEntry entryFor(const base::Clock& clock, std::string owner = "session 1", std::string secretId = "sec_1") {
  NewGrantEntry entry;
  entry.owner = std::move(owner);
  entry.description = "Agent in shop";
  entry.grant.client = "Agent";
  entry.grant.limits.expiresAt = clock.now() + std::chrono::hours(1);
  entry.grant.credentials.emplace(
      ProxyProvider::anthropic,
      ProxyCredential{ProxyProvider::anthropic, std::move(secretId), 1, base::SecretText("made-up-value")});
  return entry;
}

TEST(Base32, followsThePublishedVectorsWithoutPadding) {
  // RFC 4648 section 10, in lower case.
  const std::pair<std::string_view, std::string_view> kVectors[] = {
      {"", ""}, {"f", "my"}, {"fo", "mzxq"}, {"foo", "mzxw6"}, {"foob", "mzxw6yq"}, {"fooba", "mzxw6ytb"}};
  for (const auto& [plain, coded] : kVectors) EXPECT_EQ(base32(base::bytesOf(plain)).view(), coded);
}

TEST(Token, hasItsFormAndCarriesTheFirst35BitsOfItsOwnDigest) {
  const std::string lookup(16, 'a'), secret(52, '7');
  const base::SecretText text = tokenText(TokenKind::local, lookup, secret);
  ASSERT_EQ(text.size(), 86U);
  // `printf qzt_local_aaaaaaaaaaaaaaaa_777…7 | sha256sum`, its first 35 bits in base32, worked out by another program.
  EXPECT_EQ(text.view().substr(79), "bkn5ehs");
  const auto parts = parseToken(text.view());
  ASSERT_TRUE(parts);
  EXPECT_EQ(parts->lookupId, lookup);
  EXPECT_EQ(parts->secret, secret);
  for (const TokenKind kind : {TokenKind::live, TokenKind::test, TokenKind::local})
    EXPECT_EQ(parseToken(tokenText(kind, lookup, secret).view())->kind, kind);
}

TEST(Token, isRefusedWithAnyOtherCharacterOrLength) {
  const std::string good(tokenText(TokenKind::local, std::string(16, 'b'), std::string(52, 'c')).view());
  for (std::size_t i = 0; i < good.size(); ++i) {
    std::string other = good;
    other[i] = other[i] == 'x' ? 'y' : 'x';
    EXPECT_FALSE(parseToken(other)) << i;
    EXPECT_FALSE(parseToken(good.substr(0, i))) << i;
  }
  for (const std::string& text : {good + "a", good + std::string(1, '\0'), " " + good, std::string("qzt_"),
                                  std::string("qzt_locale") + good.substr(9)}) {
    EXPECT_FALSE(parseToken(text)) << text;
  }
}

TEST(DefaultLimits, tellTheFirstFieldThatIsOutOfItsRange) {
  const auto with = [](auto change) {
    ProxyDefaultLimits limits;
    change(limits);
    return limits.problem().value_or("");
  };
  constexpr auto kBudget = "Choose a budget from $0.01 to $10,000.";
  constexpr auto kCeiling = "The most an agent may ask for must be at least the budget and at most $10,000.";
  constexpr auto kSession = "Choose a longest session from 1 minute to 7 days.";
  constexpr auto kRate = "Choose from 1 to 10,000 requests a minute.";
  constexpr auto kBody = "Choose a request size from 1 KB to 32 MB.";
  constexpr auto kModels = "Allowed models: at most 64 per provider, each a plain model name.";
  using L = ProxyDefaultLimits;
  EXPECT_EQ(with([](L&) {}), "");
  EXPECT_EQ(with([](L& l) { l.budgetCents = 0; }), kBudget);
  EXPECT_EQ(with([](L& l) { l.budgetCents = 1'000'001; }), kBudget);
  EXPECT_EQ(with([](L& l) { l.budgetCents = 1'000'000, l.budgetCeilingCents = 999'999; }), kCeiling);
  EXPECT_EQ(with([](L& l) { l.budgetCents = l.budgetCeilingCents = 1'000'000; }), "");
  EXPECT_EQ(with([](L& l) { l.budgetCeilingCents = 1'000'001; }), kCeiling);
  EXPECT_EQ(with([](L& l) { l.longestSessionSeconds = 59, l.maxBodyBytes = 0; }), kSession);
  EXPECT_EQ(with([](L& l) { l.longestSessionSeconds = 604'801; }), kSession);
  EXPECT_EQ(with([](L& l) { l.requestsPerMinute = 10'001; }), kRate);
  EXPECT_EQ(with([](L& l) { l.maxBodyBytes = 1'023; }), kBody);
  EXPECT_EQ(with([](L& l) { l.maxBodyBytes = 33'554'433; }), kBody);
  const auto models = [&](std::vector<std::string> names) {
    return with([&](L& l) { l.models = AllowedModels{{ProxyProvider::openai, std::move(names)}}; });
  };
  EXPECT_EQ(models({}), "");
  EXPECT_EQ(models({std::string(128, 'm'), "!~"}), "");
  EXPECT_EQ(models(std::vector<std::string>(65, "m")), kModels);
  for (const std::string& name : {std::string(129, 'm'), std::string("a b"), std::string(), std::string("ü")})
    EXPECT_EQ(models({name}), kModels) << name;
}

TEST(DefaultLimits, areReadBackAsTheyWereWrittenAndOnlyThus) {
  ProxyDefaultLimits limits;
  limits.models = AllowedModels{{ProxyProvider::openai, {"m-1"}}, {ProxyProvider::anthropic, {}}};
  const std::string json = encodeDefaultLimits(limits);
  EXPECT_EQ(json,
            R"({"budgetCents":500,"budgetCeilingCents":5000,"longestSessionSeconds":28800,"requestsPerMinute":120,)"
            R"("maxBodyBytes":33554432,"models":{"anthropic":[],"openai":["m-1"]}})");
  EXPECT_EQ(decodeDefaultLimits(json), limits);
  const auto changed = [&](std::string_view from, std::string_view to) {
    std::string text = json;
    text.replace(text.find(from), from.size(), to);
    return text;
  };
  for (const std::string& text :
       {changed(R"("budgetCents":500,)", ""), changed("120", "1.5"), changed("120", "\"120\""),
        changed("120", "18446744073709551615"), changed("openai", "other"), changed("\"m-1\"", "1"),
        changed("[]", "{}"), changed("models", "model"), std::string("[]"), json + "x"}) {
    EXPECT_FALSE(decodeDefaultLimits(text)) << text;
  }
}

TEST(Options, areReadBackAsTheyWereWrittenAndOnlyThus) {
  ProxyOptions options;
  EXPECT_EQ(decodeOptions(""), options);
  EXPECT_EQ(decodeOptions(encodeOptions(options)), options);
  options = {{}, true, 100, "-----BEGIN CERTIFICATE-----\n", "http://localhost:3128"};
  const std::string json = encodeOptions(options);
  EXPECT_EQ(decodeOptions(json), options);
  EXPECT_FALSE(decodeOptions("{}"));
  EXPECT_FALSE(decodeOptions(std::string(json).insert(1, R"("loose":true,)")));
  EXPECT_FALSE(decodeOptions(std::string(json).replace(json.find("100"), 3, "-10")));
}

TEST(Grants, aTokenFindsItsGrantUntilItsTimeIsOver) {
  test::ManualClock clock;
  LocalProxyGrants grants(clock);
  const MintedGrant minted = grants.issue(entryFor(clock));
  const MintedGrant other = grants.issue(entryFor(clock));
  EXPECT_EQ(grants.lookUp(minted.token.view()), minted.grant);
  EXPECT_EQ(grants.describe(minted.grant->lookupId), "Agent in shop");
  // A known lookup id with another secret, its suffix right, is as unknown as any.
  const auto parts = *parseToken(other.token.view());
  EXPECT_FALSE(grants.lookUp(tokenText(TokenKind::local, minted.grant->lookupId, parts.secret).view()));
  EXPECT_FALSE(grants.lookUp(tokenText(TokenKind::live, parts.lookupId, parts.secret).view()));
  EXPECT_TRUE(grants.lookUp(tokenText(TokenKind::local, parts.lookupId, parts.secret).view()));
  clock.advance(std::chrono::hours(1) - std::chrono::nanoseconds(1));
  EXPECT_TRUE(grants.lookUp(minted.token.view()));
  clock.advance(std::chrono::nanoseconds(1));
  EXPECT_FALSE(grants.lookUp(minted.token.view()));
}

TEST(Grants, settingTheWallClockBackLengthensNone) {
  test::ManualClock clock;
  LocalProxyGrants grants(clock);
  std::vector<std::string> expired;
  grants.onExpired([&](std::string_view id) { expired.emplace_back(id); });
  const MintedGrant minted = grants.issue(entryFor(clock));
  EXPECT_EQ(*grants.nextExpiry(), clock.instant() + std::chrono::hours(1));
  clock.advance(std::chrono::minutes(59));
  clock.setWall(clock.now() - std::chrono::hours(5));
  grants.expire();
  EXPECT_TRUE(grants.lookUp(minted.token.view()));
  clock.advance(std::chrono::minutes(1));
  grants.expire();
  EXPECT_FALSE(grants.lookUp(minted.token.view()));
  EXPECT_EQ(expired, std::vector{minted.grant->lookupId});
  EXPECT_FALSE(grants.nextExpiry());
}

TEST(Grants, everyWayToEndTellsTheHandlersAndWritesTheSpend) {
  test::ManualClock clock;
  LocalProxyGrants grants(clock);
  std::vector<std::string> seen;
  grants.spendFrom([](std::string_view) { return Micros{1'230'001}; });
  grants.addHandler([&](std::string_view id) { seen.push_back("cut " + std::string(id)); });
  const auto issue = [&](std::string owner, std::string secretId) {
    NewGrantEntry entry = entryFor(clock, std::move(owner), std::move(secretId));
    entry.audit = [&](std::string_view action) { seen.emplace_back(action); };
    return grants.issue(std::move(entry)).grant->lookupId;
  };
  const std::string one = issue("session 1", "sec_1"), two = issue("session 2", "sec_2"),
                    three = issue("session 3", "sec_3"), four = issue("session 4", "sec_4");
  EXPECT_EQ(seen, std::vector<std::string>(4, "proxy_grant_start"));
  const auto endedBy = [&](const std::function<void()>& end) {
    seen.clear();
    end();
    return seen;
  };
  const auto lines = [](const std::string& id) {
    return std::vector<std::string>{"cut " + id, "proxy_grant_end spent $1.24"};
  };
  EXPECT_EQ(endedBy([&] { grants.end(one); }), lines(one));
  EXPECT_EQ(endedBy([&] { grants.end(one); }), std::vector<std::string>{});
  EXPECT_EQ(endedBy([&] { grants.endOwner("session 2"); }), lines(two));
  EXPECT_EQ(endedBy([&] { grants.endCarrying("sec_3"); }), lines(three));
  EXPECT_EQ(endedBy([&] { grants.endAll(); }), lines(four));
}

TEST(Grants, aLogThatFailsRefusesTheBeginningAndNeverTheEnd) {
  test::ManualClock clock;
  LocalProxyGrants grants(clock);
  bool fails = true;
  NewGrantEntry entry = entryFor(clock);
  entry.audit = [&](std::string_view) {
    if (fails) throw base::Error("The log could not be written.");
  };
  NewGrantEntry second = entryFor(clock);
  second.audit = entry.audit;
  EXPECT_THROW(grants.issue(std::move(entry)), base::Error);
  EXPECT_FALSE(grants.nextExpiry());
  fails = false;
  const MintedGrant minted = grants.issue(std::move(second));
  fails = true;
  testing::internal::CaptureStderr();
  grants.endAll();
  EXPECT_NE(testing::internal::GetCapturedStderr().find("The log could not be written."), std::string::npos);
  EXPECT_FALSE(grants.lookUp(minted.token.view()));
}

TEST(Grants, manyThreadsIssueLookUpAndEndAtOnce) {
  test::ManualClock clock;
  LocalProxyGrants grants(clock);
  std::atomic<int> ended = 0;
  grants.addHandler([&](std::string_view) { ++ended; });
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < 100; ++i) {
          const std::string owner = "session " + std::to_string(t);
          const MintedGrant minted = grants.issue(entryFor(clock, owner));
          EXPECT_EQ(grants.lookUp(minted.token.view()), minted.grant);
          if (i % 2 == 0) grants.endOwner(owner);
          EXPECT_EQ(grants.lookUp(minted.token.view()) == nullptr, i % 2 == 0);
        }
      });
    }
  }
  grants.endAll();
  EXPECT_EQ(ended, 800);
}

}  // namespace
}  // namespace sorvane::proxy
