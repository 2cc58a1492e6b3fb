#include "unlock/unlock_configuration.h"

#include <gtest/gtest.h>

#include "unlock/back_off.h"
#include "unlock/unlock_configuration_store.h"
#include "vault/accounts.h"
#include "vault/vault_fixture.h"

namespace sorvane::test {
namespace {

using namespace unlock;
using namespace std::chrono_literals;
using Case = UnlockError::Case;

constexpr crypto::PassphraseCost kCheap{8, 1};

/// A configuration with every field, its bytes made up.
UnlockConfiguration fullConfiguration() {
  UnlockConfiguration configuration;
  configuration.passphrase = PassphraseVerifier{base::Bytes(16, 0x01), base::Bytes(32, 0xFF), 65536, 3};
  configuration.requirement = PassphraseRequirement::withSystem;
  configuration.followsSession = false;
  configuration.failedAttempts = 4;
  configuration.lastFailure = std::chrono::sys_days{std::chrono::year{2026} / 11 / 21} + 9h;
  configuration.resetCause = Case::settingsDamaged;
  return configuration;
}

constexpr std::string_view kFullText =
    R"({"passphrase":{"salt":"AQEBAQEBAQEBAQEBAQEBAQ==","hash":"//////////////////////////////////////////8=",)"
    R"("memoryKiB":65536,"iterations":3},"requirement":"withSystem","followsSession":false,"failedAttempts":4,)"
    R"("lastFailure":"2026-11-21T09:00:00Z","resetCause":"settingsDamaged"})";

TEST(UnlockConfiguration, isWrittenInItsOrderAndReadBack) {
  EXPECT_EQ(encodeConfiguration(fullConfiguration()).view(), kFullText);
  EXPECT_EQ(decodeConfiguration(kFullText), fullConfiguration());
  EXPECT_EQ(encodeConfiguration({}).view(), R"({"requirement":"off","followsSession":true,"failedAttempts":0})");
  // What a later version adds is passed over.
  EXPECT_EQ(decodeConfiguration(R"({"requirement":"off","followsSession":true,"failedAttempts":0,"later":[1]})"),
            UnlockConfiguration{});
}

TEST(UnlockConfiguration, isRefusedWhereAnyPartOfItCouldNotBeActedOn) {
  const std::pair<std::string_view, std::string_view> changes[] = {
      {R"("requirement":"withSystem")", R"("requirement":"sometimes")"},
      {R"("requirement":"withSystem")", R"("requirement":2)"},
      {R"("requirement":"withSystem",)", ""},
      {R"("followsSession":false,)", ""},
      {R"("followsSession":false)", R"("followsSession":"no")"},
      {R"("failedAttempts":4,)", ""},
      {R"("failedAttempts":4)", R"("failedAttempts":-1)"},
      {R"("failedAttempts":4)", R"("failedAttempts":4.5)"},
      {R"("failedAttempts":4)", R"("failedAttempts":9223372036854775808)"},
      {R"("lastFailure":"2026-11-21T09:00:00Z")", R"("lastFailure":"yesterday")"},
      {R"("lastFailure":"2026-11-21T09:00:00Z")", R"("lastFailure":1)"},
      {R"("resetCause":"settingsDamaged")", R"("resetCause":"wait")"},
      {R"("resetCause":"settingsDamaged")", R"("resetCause":1)"},
      {R"("memoryKiB":65536)", R"("memoryKiB":4)"},
      {R"("memoryKiB":65536)", R"("memoryKiB":4294967304)"},
      {R"("iterations":3)", R"("iterations":11)"},
      {R"("iterations":3)", R"("iterations":0)"},
      {R"(AQEBAQEBAQEBAQEBAQEBAQ==)", R"(AQEBAQEBAQEBAQEBAQEB)"},
      {R"("//)", R"("_/)"},
      {R"("hash")", R"("hush")"},
      {R"(d"})", R"(d"}x)"},
      {R"(d"})", R"(d")"},
  };
  for (const auto& [part, replacement] : changes) {
    std::string text(kFullText);
    const auto at = text.find(part);
    ASSERT_NE(at, std::string::npos) << part;
    EXPECT_FALSE(decodeConfiguration(text.replace(at, part.size(), replacement))) << text;
  }
  for (const std::string_view text :
       {"", "[]", "null", "{}", "\"off\"", R"({"requirement":"only","followsSession":true,"failedAttempts":0})",
        R"({"requirement":"withSystem","followsSession":true,"failedAttempts":0})"}) {
    EXPECT_FALSE(decodeConfiguration(text)) << text;
  }
}

TEST(PassphraseVerifier, takesTheTextInEveryUnicodeFormAndNoOther) {
  const auto verifier = PassphraseVerifier::make("made up caf\u00e9", kCheap);
  EXPECT_TRUE(verifier.check("made up cafe\u0301"));
  EXPECT_FALSE(verifier.check("made up cafe"));
  EXPECT_FALSE(verifier.check("made up caf\u00e9 "));
  EXPECT_NE(PassphraseVerifier::make("made up caf\u00e9", kCheap).salt, verifier.salt);
  EXPECT_THROW(verifier.check(""), crypto::PassphraseKeyError);
  const auto made = PassphraseVerifier::make("made up");
  EXPECT_EQ(made.memoryKiB, 65536U);
  EXPECT_EQ(made.iterations, 3U);
  EXPECT_TRUE(made.check("made up"));
}

TEST(BackOff, waitsLongerWithEveryWrongPassphraseUpToAQuarterOfAnHour) {
  const std::pair<std::int64_t, int> delays[] = {
      {-1, 0},  {0, 0},   {1, 0},   {2, 0},    {3, 5},    {4, 15},   {5, 30},     {6, 60},
      {7, 300}, {8, 600}, {9, 900}, {10, 900}, {15, 900}, {16, 900}, {1000, 900}, {INT64_MAX, 900}};
  for (const auto& [attempts, seconds] : delays) EXPECT_EQ(delayAfter(attempts).count(), seconds) << attempts;

  ManualClock clock;
  BackOff backOff(clock);
  UnlockConfiguration configuration;
  for (int attempt = 1; attempt <= 1000; ++attempt) {
    backOff.noteFailure(configuration);
    const auto until = backOff.waitsUntil(configuration);
    ASSERT_EQ(until.has_value(), attempt >= 3) << attempt;
    if (until) {
      ASSERT_LE(*until, clock.now() + 900s);
      clock.advance(*until - clock.wall() - 1ns);
      ASSERT_TRUE(backOff.waitsUntil(configuration)) << attempt;
      clock.advance(1ns);
    }
    ASSERT_FALSE(backOff.waitsUntil(configuration)) << attempt;
  }
  EXPECT_EQ(configuration.failedAttempts, 1000);
  backOff.noteSuccess(configuration);
  EXPECT_EQ(configuration, UnlockConfiguration{});
}

TEST(BackOff, isNeitherShortenedNorStretchedByTheWallClock) {
  ManualClock clock;
  BackOff backOff(clock);
  UnlockConfiguration configuration;
  configuration.failedAttempts = 6;
  backOff.noteFailure(configuration);
  const base::Date failed = clock.now();
  // Set ahead by a day: the monotonic clock keeps the wait.
  clock.setWall(failed + 24h);
  EXPECT_EQ(backOff.waitsUntil(configuration), failed + 24h + 300s);
  // Set back by a day: the failure lies in the future and counts as when it was seen.
  clock.setWall(failed - 24h);
  clock.advance(100s);
  EXPECT_EQ(backOff.waitsUntil(configuration), failed - 24h + 300s);
  clock.advance(200s);
  EXPECT_FALSE(backOff.waitsUntil(configuration));

  // The same after a restart, where only the stored date is known.
  BackOff restarted(clock);
  EXPECT_EQ(restarted.waitsUntil(configuration), clock.now() + 300s);
  clock.advance(299s);
  EXPECT_TRUE(restarted.waitsUntil(configuration));
  clock.advance(1s);
  EXPECT_FALSE(restarted.waitsUntil(configuration));
}

TEST(UnlockError, saysHowLongToWait) {
  const base::Date until{1'000'000s};
  const std::pair<std::chrono::milliseconds, std::string_view> cases[] = {
      {-5s, "1 second."},      {0s, "1 second."},    {1ms, "1 second."},     {1s, "1 second."},
      {1001ms, "2 seconds."},  {59s, "59 seconds."}, {59001ms, "1 minute."}, {60s, "1 minute."},
      {60001ms, "2 minutes."}, {120s, "2 minutes."}, {121s, "3 minutes."},   {900s, "15 minutes."}};
  for (const auto& [remaining, rest] : cases) {
    EXPECT_EQ(UnlockError::wait(until, until - remaining).sentence(),
              "Too many tries. Try again in " + std::string(rest));
  }
}

TEST(UnlockError, hasOneSentenceForEachCaseAndIsEqualByContents) {
  const std::pair<Case, std::string_view> cases[] = {
      {Case::vaultLocked, "Unlock sorvane first."},
      {Case::cancelled, "Couldn’t verify. Try again."},
      {Case::wrongPassphrase, "Wrong passphrase."},
      {Case::tooShort, "Use at least 8 characters."},
      {Case::mismatch, "The passphrases don’t match."},
      {Case::managed, "Your organization manages this setting."},
      {Case::settingsMissing, "sorvane’s unlock settings are missing."},
      {Case::settingsDamaged, "sorvane’s unlock settings can’t be read. They may be damaged or replaced."},
      {Case::vaultKeyMismatch,
       "sorvane’s vault key in the Keychain doesn’t open this vault. It may have been removed or replaced."},
  };
  for (const auto& [kind, sentence] : cases) EXPECT_EQ(UnlockError(kind).sentence(), sentence);
  const std::tuple<int, bool, std::string_view> failures[] = {
      {-5, false, "This Mac has no login password set, so it cannot ask for one."},
      {-1, true, "Your Mac did not accept that. Try again."},
      {-1004, true, "Your Mac could not show the password prompt. Try again."},
      {-6, false, "Your Mac could not show the unlock prompt. Try again."},
  };
  for (const auto& [code, passwordPrompt, sentence] : failures) {
    EXPECT_EQ(UnlockError::systemCheckFailed({code, passwordPrompt, {}}).sentence(), sentence);
  }
  EXPECT_EQ(diagnosticText({-6, false}), "LocalAuthentication error -6");
  EXPECT_EQ(UnlockError::storage("a").sentence(), "sorvane couldn’t read or save its unlock settings in the Keychain.");
  const base::Date until{100s};
  EXPECT_EQ(UnlockError::wait(until, until - 5s), UnlockError::wait(until, until - 3s));
  EXPECT_FALSE(UnlockError::wait(until, until) == UnlockError::wait(until + 1s, until));
  EXPECT_EQ(UnlockError::systemCheckFailed({-1004, false, "No agent."}).sentence(),
            "Your Mac could not show the unlock prompt. Try again. No agent.");
  EXPECT_FALSE(UnlockError::systemCheckFailed({-1, true, {}}) == UnlockError::systemCheckFailed({-1, false, {}}));
}

/// The sealed store in a real vault.
class SealedConfiguration : public VaultFixture {
 protected:
  SealedUnlockConfigurationStore stored(SealedUnlockConfigurationStore::FirstRun firstRun) {
    return {vault().settings(), firstRun};
  }
  static std::optional<Case> failureOf(UnlockConfigurationStore& store) {
    try {
      store.load();
    } catch (const UnlockError& error) {
      return error.kind();
    }
    return std::nullopt;
  }
  static std::string account() { return vault::sealedSettingAccount("unlock-settings"); }
  using FirstRun = SealedUnlockConfigurationStore::FirstRun;
};

TEST_F(SealedConfiguration, isFreshOnceAndMissingEverAfter) {
  {
    auto store = stored(FirstRun::yes);
    EXPECT_EQ(store.load(), UnlockConfiguration{});
    store.save(fullConfiguration());
    EXPECT_EQ(store.load(), fullConfiguration());
    memory_.remove(account());
    EXPECT_EQ(failureOf(store), Case::settingsMissing);
  }
  auto later = stored(FirstRun::no);
  EXPECT_EQ(failureOf(later), Case::settingsMissing);
}

TEST_F(SealedConfiguration, tellsDamageAForeignKeyAndAStoreThatSaysNoApart) {
  auto store = stored(FirstRun::no);
  for (const std::string& text : {std::string("{}"), std::string("no JSON"), std::string(2999, ' ')}) {
    vault().settings().save(kUnlockSetting, text);
    EXPECT_EQ(failureOf(store), Case::settingsDamaged) << text.substr(0, 10);
  }
  // Sealed as another setting of the same vault, and as this one of another vault.
  store.save({});
  vault().settings().save("approval-policy", encodeConfiguration({}).view());
  const auto own = memory_.read(account());
  memory_.store(account(), memory_.read(vault::sealedSettingAccount("approval-policy")));
  EXPECT_EQ(failureOf(store), Case::vaultKeyMismatch);
  memory_.store(account(), own);
  EXPECT_EQ(failureOf(store), std::nullopt);
  const auto key = memory_.read(vault::kMetadataKeyAccount);
  memory_.store(vault::kMetadataKeyAccount, base::SecretText("AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA="));
  EXPECT_EQ(failureOf(store), Case::vaultKeyMismatch);
  memory_.remove(vault::kMetadataKeyAccount);
  EXPECT_EQ(failureOf(store), Case::vaultKeyMismatch);
  EXPECT_THROW(store.save({}), UnlockError);
  memory_.store(vault::kMetadataKeyAccount, key);
  EXPECT_EQ(failureOf(store), std::nullopt);
}

/// Settings of a credential store that is not there.
class DeadSettings final : public vault::SealedSettings {
 public:
  std::optional<base::SecretText> load(std::string_view) override { fail(); }
  void save(std::string_view, std::string_view) override { fail(); }
  void remove(std::string_view) override { fail(); }

 private:
  [[noreturn]] static void fail() {
    throw vault::SettingError(vault::SettingError::Case::storage, "the store is gone");
  }
};

TEST_F(SealedConfiguration, passesOnWhatTheStoreSaysAsACauseOnly) {
  DeadSettings dead;
  SealedUnlockConfigurationStore store(dead, FirstRun::yes);
  for (const bool saves : {false, true}) {
    try {
      saves ? store.save({}) : static_cast<void>(store.load());
      FAIL();
    } catch (const UnlockError& error) {
      EXPECT_EQ(error, UnlockError::storage("the store is gone"));
    }
  }
  EXPECT_TRUE(store.firstRun());
}

}  // namespace
}  // namespace sorvane::test
