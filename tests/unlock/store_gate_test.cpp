#include "unlock/store_gate.h"

#include <sys/stat.h>

#include <future>

#include "store_gate_fixture.h"
#include "vault/accounts.h"
#include "vault/store_move.h"
#include "vault/vault.h"

namespace sorvane::test {
namespace {

using namespace unlock;
using Case = UnlockError::Case;
using Verdict = PassphraseGate::Verdict;
using Requirement = PassphraseRequirement;

constexpr auto kFirst = GatedStore::kFirst, kSecond = GatedStore::kSecond;
constexpr auto kLocked = "Unlock sorvane first.";
constexpr auto kStorage = "sorvane couldn’t read or save its unlock settings in the Keychain.";

/// Whether the key opens the database that lies at `path`.
bool opens(const GatedStore& gated, std::string_view database, std::string_view keyBytes) {
  const auto key = crypto::SymmetricKey::fromBytes(base::bytesOf(keyBytes));
  platform::GivenKey given(*key);
  platform::EmbeddedSecretStore store(gated.path(database), given);
  try {
    store.read(GatedStore::nameOf(0));
    return true;
  } catch (const vault::SecretStoreError&) {
    return false;
  }
}

TEST(StoreGate, sealsTheStoreUnderAFreshKeyThatNoFileHolds) {
  GatedStore gated;
  gated.fill();
  EXPECT_FALSE(gated.gate().isSealed());
  const std::string oldKey = gated.bytesOf("store.key");
  gated.adopt(kFirst);
  EXPECT_TRUE(gated.gate().isSealed());
  gated.expectRows();
  gated.gate().close();
  EXPECT_FALSE(gated.has("store.key"));
  EXPECT_FALSE(gated.has("values.db.new"));
  EXPECT_FALSE(opens(gated, "values.db", oldKey));
  struct stat status {};
  for (const auto name : {kWrapName, std::string_view("values.db")}) {
    ASSERT_EQ(::lstat(gated.path(name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U) << name;
  }
  EXPECT_EQ(told([&] { gated.door().read(GatedStore::nameOf(0)); }), kLocked);
  EXPECT_EQ(told([&] { gated.gate().open(); }), kLocked);
  EXPECT_EQ(told([&] { gated.adopt(kSecond); }), kLocked);
  EXPECT_EQ(told([&] { gated.gate().release({}); }), kLocked);
  EXPECT_EQ(gated.attempt(kSecond), Verdict::wrong);
  EXPECT_EQ(gated.attempt(""), Verdict::wrong);
  EXPECT_EQ(told([&] { gated.door().accounts(); }), kLocked);
  EXPECT_EQ(gated.attempt(kFirst), Verdict::right);
  gated.expectRows();
}

TEST(StoreGate, neverRewritesAValueForAnotherPassphraseOrRequirement) {
  GatedStore gated;
  gated.fill();
  gated.adopt(kFirst);
  const auto box = [&] { return gated.wrap(); };
  const StoreWrap first = box();
  gated.adopt(kSecond);
  EXPECT_NE(box().key, first.key);
  EXPECT_NE(box().salt, first.salt);
  gated.restart();
  EXPECT_EQ(gated.attempt(kFirst), Verdict::wrong);
  EXPECT_EQ(gated.attempt(kSecond), Verdict::right);
  gated.expectRows();
  const StoreWrap second = box();
  UnlockConfiguration configuration = gated.gate().load();
  configuration.requirement = Requirement::withSystem;
  gated.gate().save(configuration);
  EXPECT_EQ(box().requirement, Requirement::withSystem);
  EXPECT_EQ(box().key, second.key);
}

TEST(StoreGate, releasesTheStoreAndSealsItUnderYetAnotherKeyTheNextTime) {
  GatedStore gated;
  gated.fill();
  gated.adopt(kFirst);
  gated.gate().release({});
  EXPECT_FALSE(gated.gate().isSealed());
  gated.restart();
  EXPECT_EQ(gated.gate().load(), UnlockConfiguration{});
  gated.gate().open();
  gated.expectRows();
  const std::string released = gated.bytesOf("store.key");
  gated.adopt(kSecond);
  gated.gate().close();
  EXPECT_FALSE(opens(gated, "values.db", released));
  EXPECT_EQ(gated.attempt(kSecond), Verdict::right);
  gated.expectRows();
}

TEST(StoreGate, keepsTheRecordOfWrongPassphrasesBesideTheClosedStore) {
  GatedStore gated;
  gated.fill();
  gated.adopt(kFirst, Requirement::withSystem);
  gated.restart();
  UnlockConfiguration known = gated.gate().load();
  EXPECT_EQ(known.requirement, Requirement::withSystem);
  EXPECT_TRUE(known.passphrase->hash.empty());
  known.failedAttempts = 5;
  known.lastFailure = base::Date(std::chrono::seconds(1'700'000'000));
  gated.gate().save(known);
  gated.restart();
  EXPECT_EQ(gated.gate().load(), known);
  EXPECT_EQ(gated.attempt(kFirst), Verdict::right);
  EXPECT_EQ(gated.gate().load().failedAttempts, 0);
  gated.gate().save(gated.gate().load());
  EXPECT_EQ(gated.wrap().failedAttempts, 0);
  EXPECT_FALSE(gated.wrap().lastFailure);
}

TEST(StoreGate, opensNothingForAnAttemptThatACloseOvertook) {
  GatedStore gated;
  gated.fill();
  gated.adopt(kFirst);
  // Of a cost that gives the close its time.
  StoreWrap wrap = gated.wrap();
  sealStoreKey(wrap, WrappingKey::make(kFirst, {}), *openStoreKey(wrap, kFirst));
  gated.putWrap(wrap);
  Verdict verdict = Verdict::wrong;
  for (int tries = 0; tries < 20 && verdict != Verdict::unknown; ++tries) {
    gated.restart();
    std::promise<void> begun;
    gated.store().whenLooking = [&] { begun.set_value(); };
    auto attempt = std::async(std::launch::async, [&] { return gated.gate().attempt(base::SecretText(kFirst), {}); });
    begun.get_future().wait();
    gated.gate().close();
    verdict = attempt.get();
    EXPECT_EQ(gated.door().behind(), nullptr);
    EXPECT_EQ(told([&] { gated.gate().release({}); }), kLocked);
  }
  EXPECT_EQ(verdict, Verdict::unknown);
}

TEST(StoreGate, followsTheItemsToAStoreThatCannotBeSealed) {
  GatedStore gated;
  gated.fill();
  gated.adopt(kFirst);
  const auto target = std::make_shared<MemorySecretStore>();
  const auto from = gated.gate().beginMove();
  EXPECT_EQ(told([&] { gated.adopt(kSecond); }), kStorage);
  EXPECT_EQ(told([&] { gated.gate().release({}); }), kStorage);
  EXPECT_EQ(told([&] { gated.gate().save(gated.with(kFirst)); }), kStorage);
  vault::moveStore(*from, *target, {{}, [&] { gated.gate().moved({[target] { return target; }, nullptr}, target); }});
  gated.gate().endMove();
  EXPECT_FALSE(gated.gate().isSealed());
  gated.expectRows();
  gated.gate().close();
  EXPECT_EQ(told([&] { gated.door().accounts(); }), kLocked);
  // The passphrase is asked as before, and is changed without a wrap.
  EXPECT_EQ(gated.attempt(kSecond), Verdict::wrong);
  EXPECT_EQ(gated.attempt(kFirst), Verdict::right);
  gated.gate().open();
  gated.expectRows();
  gated.adopt(kSecond);
  EXPECT_EQ(gated.attempt(kSecond), Verdict::right);
  EXPECT_FALSE(gated.gate().isSealed());
}

TEST(StoreGate, makesTheVaultKeyThatTheVaultThenTakesForItsOwn) {
  GatedStore gated;
  EXPECT_TRUE(gated.gate().isFirstRun());
  EXPECT_EQ(gated.gate().load(), UnlockConfiguration{});
  EXPECT_TRUE(gated.gate().isFirstRun());
  // Nothing but the passphrase opens it: it is set before there is any vault.
  gated.adopt(kFirst);
  EXPECT_FALSE(gated.gate().isFirstRun());
  EXPECT_EQ(gated.door().behind(), nullptr);
  gated.restart(GatedStore::Gate::FirstRun::yes);
  EXPECT_EQ(gated.attempt(kFirst), Verdict::right);
  EXPECT_EQ(gated.gate().load().requirement, Requirement::only);
  base::SystemFiles files;
  ManualClock clock;
  RecordingRevoker revoker;
  const vault::Vault::Ports ports{files, gated.door(), clock, revoker};
  const auto reopened = [&] { return std::make_unique<vault::Vault>(gated.path("vault"), ports); };
  EXPECT_EQ(reopened()->storageFailure(), std::nullopt);
  gated.restart();
  EXPECT_NE(reopened()->storageFailure(), std::nullopt);
  EXPECT_EQ(gated.attempt(kFirst), Verdict::right);
  EXPECT_EQ(vault::Vault(gated.path("vault"), {files, gated.door(), clock, revoker}).storageFailure(), std::nullopt);
}

TEST(StoreGate, findsSettingsMissingOnceThereWereAny) {
  GatedStore gated;
  gated.fill();
  gated.door().remove(vault::sealedSettingAccount(kUnlockSetting));
  gated.restart();
  EXPECT_EQ(told([&] { gated.gate().load(); }), UnlockError(Case::settingsMissing).sentence());
}

/// A sealed store of an ordinary passphrase whose settings or wrap somebody changed.
struct Tampered : GatedStore {
  Tampered() {
    fill();
    adopt(kFirst);
  }
};

TEST(StoreGate, staysHeldOverARestartUntilItIsTakenBack) {
  GatedStore gated;
  EXPECT_FALSE(gated.gate().isHeld());
  gated.gate().setHeld(true);
  gated.restart();
  EXPECT_TRUE(gated.gate().isHeld());
  gated.gate().setHeld(false);
  gated.gate().setHeld(false);
  EXPECT_FALSE(gated.gate().isHeld());
}

TEST(StoreGate, knowsWhatAResetPutsInForceOfASealedStore) {
  for (const bool isMissing : {true, false}) {
    Tampered gated;
    const std::string account = vault::sealedSettingAccount(kUnlockSetting);
    isMissing ? gated.door().remove(account) : gated.door().store(account, base::SecretText("AAAA"));
    gated.restart();
    EXPECT_EQ(told([&] { gated.gate().fresh(); }), kLocked);
    EXPECT_EQ(gated.attempt(kFirst), Verdict::right);
    EXPECT_EQ(told([&] { gated.gate().load(); }),
              UnlockError(isMissing ? Case::settingsMissing : Case::vaultKeyMismatch).sentence());
    gated.gate().save(gated.gate().fresh());
    gated.restart();
    EXPECT_EQ(gated.attempt(kSecond), Verdict::wrong);
    EXPECT_EQ(gated.attempt(kFirst), Verdict::right);
    EXPECT_TRUE(gated.gate().load().passphrase->check(kFirst));
    EXPECT_EQ(gated.gate().load().requirement, Requirement::only);
    gated.expectRows();
  }
}

TEST(StoreGate, makesAVerifierOfAnEarlierPassphraseAnew) {
  Tampered gated;
  const std::string before = gated.bytesOf(kWrapName);
  gated.adopt(kSecond);
  gated.gate().close();
  gated.put(kWrapName, before);
  EXPECT_EQ(gated.attempt(kFirst), Verdict::right);
  EXPECT_TRUE(gated.gate().load().passphrase->check(kFirst));
  EXPECT_EQ(gated.gate().load().passphrase->salt, gated.wrap().verifierSalt);
}

TEST(StoreGate, replacesAKeyThatMayHaveLainInClear) {
  Tampered gated;
  // As a release leaves it that was cut off before its switch.
  const std::string wrap = gated.bytesOf(kWrapName);
  gated.gate().release(gated.with(kFirst));
  gated.put(kWrapName, wrap);
  const std::string seen = gated.bytesOf("store.key");
  gated.restart();
  EXPECT_EQ(gated.gate().load().requirement, Requirement::only);
  EXPECT_FALSE(gated.has("store.key"));
  EXPECT_EQ(gated.attempt(kFirst), Verdict::right);
  EXPECT_FALSE(gated.wrap().keyLayInClear);
  gated.expectRows();
  gated.gate().close();
  EXPECT_FALSE(opens(gated, "values.db", seen));
  EXPECT_EQ(gated.attempt(kFirst), Verdict::right);
  gated.expectRows();
}

TEST(StoreGate, sealsAPlainStoreWhosePassphraseIsRight) {
  GatedStore gated;
  gated.fill();
  gated.gate().save(gated.with(kFirst));
  gated.restart();
  EXPECT_FALSE(gated.gate().isSealed());
  EXPECT_EQ(gated.attempt(kSecond), Verdict::wrong);
  EXPECT_FALSE(gated.gate().isSealed());
  EXPECT_EQ(gated.attempt(kFirst), Verdict::right);
  EXPECT_TRUE(gated.gate().isSealed());
  gated.expectRows();
}

TEST(StoreGate, saysPlainlyThatAStoreWithoutItsWrapOrItsKeyIsLost) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "damaged or was replaced"},
      {"{}", "damaged or was replaced"},
      {std::string(10'000'000, 'x'), "damaged or was replaced"},
      {R"({"format":2})", "written by a newer sorvane"},
  };
  for (const auto& [contents, said] : cases) {
    Tampered gated;
    gated.put(kWrapName, contents);
    gated.restart();
    try {
      gated.gate().load();
      ADD_FAILURE() << said;
    } catch (const UnlockError& error) {
      EXPECT_TRUE(error.isStoreLost());
      EXPECT_NE(error.sentence().find(said), std::string::npos) << error.sentence();
      EXPECT_NE(error.sentence().find("restore a backup"), std::string::npos);
    }
    EXPECT_TRUE(gated.gate().isSealed());
    EXPECT_EQ(gated.bytesOf(kWrapName), contents) << "it was touched";
  }
  Tampered gated;
  std::filesystem::remove(gated.wrapPath());
  gated.restart();
  EXPECT_NE(told([&] { gated.gate().load(); }).find("restore a backup"), std::string::npos);
  EXPECT_FALSE(gated.has("store.key"));
}

TEST(StoreGate, opensNothingWithTheWrapOfAnotherStore) {
  Tampered gated, other;
  gated.put(kWrapName, other.bytesOf(kWrapName));
  gated.restart();
  EXPECT_EQ(gated.attempt(kFirst), Verdict::right);
  EXPECT_EQ(told([&] { gated.gate().load(); }), kStorage);
  // An edited one opens with no passphrase at all.
  StoreWrap edited = other.wrap();
  edited.cost.iterations = 2;
  other.putWrap(edited);
  other.restart();
  EXPECT_EQ(other.attempt(kFirst), Verdict::wrong);
}

}  // namespace
}  // namespace sorvane::test
