// A vault that is taken out whole, put in another's place, and gone back from: at every call that fails, or where the
// process ends, the old vault or the new one, never a mix.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "platform/shared/embedded_secret_store.h"
#include "support/faults.h"
#include "vault/manifest.h"
#include "vault/vault_contents.h"
#include "vault_fixture.h"

namespace sorvane::vault {
namespace {

using test::Fault;
using test::FaultyFiles;
using test::FaultyStore;
using test::newSecret;
using test::newVersion;
using test::sentenceOf;

const AccessContext kBackup{"Terminal", "backup", "test", {}};
constexpr const char* kNotVerified = "The restored vault did not pass verification. Your current vault is unchanged.";
constexpr std::int64_t kForever = 1'000'000;

/// A vault with a version of every status, a limit, bindings and a log.
void fillOld(Vault& vault) {
  const std::string a = vault.createSecret(newSecret("A", "one")).id;
  vault.collectGarbage(0);
  vault.addVersion(a, newVersion("two"));
  vault.collectGarbage(0);
  vault.addVersion(a, newVersion("three"));
  vault.limitVersion(a, 3, std::vector<std::string>{"production"});
  const std::string dev = vault.createEnvironment({"Dev", "", {}, {}}).id;
  vault.bind(dev, {"A", a, {}, {}});
  vault.log({"A", "one", "test", {}});
}

/// A copy: the records and the log as they are, the values by what they say.
VaultContents copyOf(const VaultContents& contents) {
  VaultContents copy;
  copy.secrets = contents.secrets;
  copy.projects = contents.projects;
  copy.audit = contents.audit;
  for (const SecretValueEntry& entry : contents.values) {
    copy.values.push_back({entry.secretId, entry.version, entry.value.clone()});
  }
  if (contents.cloudCache) copy.cloudCache = contents.cloudCache->clone();
  return copy;
}

/// What a backup of another vault holds.
VaultContents foreignContents() {
  test::TemporaryFolder folder;
  test::MemorySecretStore store;
  test::RecordingRevoker revoker;
  test::ManualClock clock;
  base::SystemFiles files;
  Vault vault(folder.path() / "vault", {files, store, clock, revoker});
  const std::string id = vault.createSecret(newSecret("Restored", "from afar")).id;
  vault.addVersion(id, newVersion("from afar, later"));
  vault.bind(vault.createEnvironment({"Far", "", {}, {}}).id, {"FAR", id, 1, {}});
  vault.log({"Elsewhere", "log", "test", {}});
  VaultContents contents = vault.contents(kBackup);
  contents.cloudCache = base::SecretText(R"({"environments":[],"secrets":[]})");
  return contents;
}

std::vector<std::string> textsOf(const VaultContents& contents) {
  std::vector<std::string> texts;
  for (const SecretValueEntry& entry : contents.values) {
    texts.push_back(accountOf(entry.secretId, entry.version) + "=" + std::string(entry.value.view()));
  }
  return texts;
}

/// Whether the vault holds the contents, values and log included; events of this test's own reading do not count.
bool holds(Vault& vault, const VaultContents& contents) {
  const VaultContents now = vault.contents(kBackup);
  const bool begins = now.audit.size() >= contents.audit.size() &&
                      std::equal(contents.audit.begin(), contents.audit.end(), now.audit.begin());
  return now.secrets == contents.secrets && now.projects == contents.projects && begins &&
         textsOf(now) == textsOf(contents) && now.cloudCache.has_value() == contents.cloudCache.has_value() &&
         (!now.cloudCache || now.cloudCache->sameAs(contents.cloudCache->view()));
}

/// The values in the store; a collection that purges nothing leaves those of the vault and of the one before it only.
std::size_t valuesLeft(Vault& vault, EnumerableSecretStore& store) {
  EXPECT_EQ(vault.collectGarbage(kForever).missingValues, std::vector<std::string>{});
  std::size_t count = 0;
  for (const std::string& account : store.accounts()) count += parseVersionAccount(account).has_value();
  return count;
}

class Restore : public test::VaultFixture {};

TEST_F(Restore, putsEveryRecordValueAndEventInPlaceAndStepsBackAndForth) {
  fillOld(vault());
  const VaultContents old = vault().contents(kBackup), other = foreignContents();
  EXPECT_EQ(old.values.size(), 2U) << "a purged version has no value";
  revoker_.take();
  vault().restore(other);
  EXPECT_TRUE(holds(vault(), other));
  const auto revocations = revoker_.take();
  ASSERT_EQ(revocations.size(), 1U);
  EXPECT_TRUE(std::holds_alternative<RevokeAll>(revocations.front()));
  EXPECT_TRUE(holds(open(), other)) << "after a start";
  vault().addVersion(vault().records()->secretByName("Restored")->id, newVersion("added behind the restore"));
  const VaultContents changed = vault().contents(kBackup);
  vault().stepBack();
  EXPECT_TRUE(holds(vault(), old));
  EXPECT_TRUE(holds(open(), old));
  vault().stepBack();
  EXPECT_TRUE(holds(open(), changed));
  EXPECT_EQ(valuesLeft(vault(), memory_), old.values.size() + changed.values.size());
  vault().restore(old);
  EXPECT_TRUE(holds(open(), old));
  EXPECT_EQ(valuesLeft(vault(), memory_), old.values.size() + changed.values.size())
      << "of what was replaced twice nothing is left";
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory() / "generations"), {}), 2);
}

TEST_F(Restore, hasNoStepBackBeforeTheFirstRestore) {
  fillOld(vault());
  EXPECT_FALSE(vault().canStepBack());
  EXPECT_EQ(sentenceOf([&] { vault().stepBack(); }), "There is no previous vault to restore.");
}

TEST_F(Restore, doesNotGoBackToAVaultThatDoesNotOpen) {
  fillOld(vault());
  const auto secrets = fileIn("secrets.json");
  const std::string whole = bytesOf(secrets);
  const VaultContents old = vault().contents(kBackup), other = foreignContents();
  vault().restore(other);
  put(secrets, "damaged");
  EXPECT_EQ(sentenceOf([&] { vault().stepBack(); }), kNotVerified);
  EXPECT_TRUE(holds(vault(), other));
  std::filesystem::remove(secrets);
  EXPECT_EQ(sentenceOf([&] { vault().stepBack(); }), "Restored vault files are missing");
  EXPECT_TRUE(holds(open(), other));
  put(secrets, whole);
  vault().stepBack();
  EXPECT_TRUE(holds(vault(), old));
}

TEST_F(Restore, helpsAVaultThatCannotBeOpened) {
  const VaultContents other = foreignContents();
  const struct {
    const char* what;
    std::function<void()> damage;
  } kDamages[] = {
      {"key gone", [&] { memory_.remove(kMetadataKeyAccount); }},
      {"key replaced", [&] { memory_.store(kMetadataKeyAccount, base::SecretText("no key")); }},
      {"metadata damaged", [&] { put(fileIn("secrets.json"), "x"); }},
      {"metadata gone", [&] { std::filesystem::remove_all(directory() / "generations" / vault().generation()); }},
      {"manifest damaged", [&] { put(directory() / "active-vault.json", "{"); }},
      {"manifest gone", [&] { std::filesystem::remove(directory() / "active-vault.json"); }},
      {"manifest too large", [&] { put(directory() / "active-vault.json", std::string((1U << 20) + 1, ' ')); }},
      {"manifest a link",
       [&] {
         std::filesystem::rename(directory() / "active-vault.json", directory() / "elsewhere");
         std::filesystem::create_symlink("elsewhere", directory() / "active-vault.json");
       }},
      {"manifest a folder",
       [&] {
         std::filesystem::remove(directory() / "active-vault.json");
         std::filesystem::create_directory(directory() / "active-vault.json");
       }},
      {"generations a file",
       [&] {
         std::filesystem::remove_all(directory() / "generations");
         put(directory() / "generations", "x");
       }},
      {"metadata gone, with a journal",
       [&] {
         put(directory() / "local-reversal.json", "{");
         std::filesystem::remove_all(directory() / "generations" / vault().generation());
       }},
      {"journal damaged", [&] { put(directory() / "local-reversal.json", "{"); }},
      {"manifest and journal damaged",
       [&] {
         put(directory() / "local-reversal.json", "{");
         put(directory() / "active-vault.json", "{");
       }},
  };
  for (const auto& damage : kDamages) {
    close();
    std::filesystem::remove_all(directory());
    for (const std::string& account : memory_.accounts()) memory_.remove(account);
    fillOld(open());
    damage.damage();
    ASSERT_NE(open().storageFailure(), std::nullopt) << damage.what;
    EXPECT_EQ(sentenceOf([&] { vault().restore(other); }), "") << damage.what;
    EXPECT_TRUE(holds(vault(), other)) << damage.what;
    EXPECT_TRUE(holds(open(), other)) << damage.what;
  }
}

TEST_F(Restore, losesNothingThatADamagedManifestMayHaveNamed) {
  fillOld(vault());
  const VaultContents other = foreignContents(), third = foreignContents();
  vault().restore(other);
  for (const std::string damaged : {"{", R"({"version":99,"current":"x"})", ""}) {
    vault().createSecret(newSecret("Added before " + damaged, "later"));
    const VaultContents added = vault().contents(kBackup);
    put(directory() / "active-vault.json", damaged);
    ASSERT_NE(open().storageFailure(), std::nullopt);
    const auto values = memory_.accounts().size();
    vault().restore(third);
    EXPECT_EQ(memory_.accounts().size(), values + third.values.size());
    vault().stepBack();
    EXPECT_TRUE(holds(vault(), added)) << damaged;
  }
}

TEST_F(Restore, isNotHeldUpByWhatItCannotClearAway) {
  fillOld(vault());
  std::filesystem::create_directories(directory() / "generations" / "restored-20000101T000000Z-00000000" / "sub");
  const VaultContents other = foreignContents();
  vault().restore(other);
  EXPECT_TRUE(holds(vault(), other));
  EXPECT_EQ(sentenceOf([&] { vault().collectGarbage(kForever); }), "");
}

TEST_F(Restore, collectsTheValuesOfAForeignBackupUnderWhateverIdsTheyCame) {
  fillOld(vault());
  const VaultContents old = vault().contents(kBackup);
  const auto values = memory_.accounts().size();
  VaultContents foreign = foreignContents();
  foreign.projects.clear();
  foreign.secrets.front().id = "ABC-1";
  for (SecretValueEntry& entry : foreign.values) entry.secretId = "ABC-1";
  vault().restore(foreign);
  for (int i = 0; i < 2; ++i) vault().restore(old);
  EXPECT_EQ(memory_.accounts().size(), values + old.values.size()) << "the first vault's own values went, too";
}

TEST_F(Restore, undoesACutOffChangeWhenItGoesBack) {
  fillOld(vault());
  const VaultContents old = vault().contents(kBackup), other = foreignContents();
  vault().reversalWriteBoundary = [](int) { throw base::FileError("the disk is full", ENOSPC); };
  // Nothing can be undone now: the journal stays, and with damage on top of it the vault does not open.
  EXPECT_NE(sentenceOf([&] { vault().createSecret(newSecret("Cut off", "value")); }), "");
  put(directory() / "local-reversal.json", R"({"committed":false,"copies":[],"files":{"secrets.json":"AAAA"}})");
  EXPECT_EQ(open().storageFailure(), "Invalid reversal files");
  vault().restore(other);
  EXPECT_TRUE(holds(vault(), other));
  EXPECT_FALSE(std::filesystem::exists(directory() / "local-reversal.json"));
  EXPECT_EQ(sentenceOf([&] { vault().stepBack(); }), kNotVerified) << "the journal came back with its vault";
  EXPECT_TRUE(holds(open(), other));
}

TEST_F(Restore, refusesContentsThatAreNoVault) {
  fillOld(vault());
  const VaultContents sound = foreignContents(), old = vault().contents(kBackup);
  const struct {
    const char* what;
    void (*spoil)(VaultContents&);
  } kFaults[] = {
      {"a value missing", [](VaultContents& c) { c.values.pop_back(); }},
      {"a value twice",
       [](VaultContents& c) {
         c.values.push_back({c.values[0].secretId, 1, base::SecretText("x")});
       }},
      {"a value of no secret", [](VaultContents& c) { c.values[0].secretId = "sec_other"; }},
      {"a value of no version", [](VaultContents& c) { c.values[0].version = 9; }},
      {"a value of a purged version",
       [](VaultContents& c) { c.secrets[0].versions[0].status = VersionStatus::purged; }},
      {"a value too long", [](VaultContents& c) { c.values[0].value = base::SecretText(std::string(4097, 'x')); }},
      {"a secret twice", [](VaultContents& c) { c.secrets.push_back(c.secrets[0]); }},
      {"a secret without id", [](VaultContents& c) { c.secrets[0].id.clear(); }},
      {"a secret under the account of the key",
       [](VaultContents& c) {
         c.secrets[0].id = "__sorvane_sealed_";
         for (auto& entry : c.values) entry.secretId = c.secrets[0].id;
       }},
      {"versions out of order",
       [](VaultContents& c) { std::swap(c.secrets[0].versions[0], c.secrets[0].versions[1]); }},
      {"a current version that is not there", [](VaultContents& c) { c.secrets[0].currentVersion = 7; }},
      {"an environment twice", [](VaultContents& c) { c.projects.push_back(c.projects[0]); }},
  };
  for (const auto& fault : kFaults) {
    VaultContents contents = copyOf(sound);
    fault.spoil(contents);
    EXPECT_EQ(sentenceOf([&] { vault().restore(contents); }), kNotVerified) << fault.what;
    EXPECT_TRUE(holds(vault(), old)) << fault.what;
  }
  EXPECT_EQ(valuesLeft(vault(), memory_), old.values.size());
}

TEST_F(Restore, stopsWhereItsProgressThrowsAndLeavesNothing) {
  fillOld(vault());
  const VaultContents old = vault().contents(kBackup), other = foreignContents();
  for (std::int64_t at = 0; at <= 2; ++at) {
    EXPECT_THROW(vault().restore(other,
                                 [&](std::int64_t done, std::int64_t) {
                                   if (done == at) throw std::runtime_error("stopped");
                                 }),
                 std::runtime_error);
    EXPECT_TRUE(holds(vault(), old)) << at;
    std::size_t values = 0;
    for (const std::string& account : memory_.accounts()) values += parseVersionAccount(account).has_value();
    EXPECT_EQ(values, old.values.size()) << "without any collection, stopped at " << at;
  }
}

TEST_F(Restore, cannotTakeOutAVaultWhoseValueOrLogIsUnreadable) {
  fillOld(vault());
  const std::string id = vault().records()->secretByName("A")->id;
  const auto log = fileIn("access_log.jsonl");
  const std::string whole = bytesOf(log);
  put(log, whole + "no event\n");
  EXPECT_THROW(vault().contents(kBackup), UnreadableHistory);
  put(log, whole);
  memory_.remove(accountOf(id, 2));
  try {
    vault().contents(kBackup);
    ADD_FAILURE() << "a retired version without its value";
  } catch (const UnreadableValue& error) {
    EXPECT_EQ(error.secretName(), "A");
  }
  EXPECT_EQ(bytesOf(log), whole) << "nothing left the vault, so nothing is logged";
}

struct Operation {
  const char* name;
  void (*prepare)(Vault&);  ///< makes the old vault
  void (*run)(Vault&, const VaultContents& other);
  bool toOther;  ///< the new vault is the other one's contents, else the one before the old one
};

const Operation kOperations[] = {
    {"first restore", [](Vault& v) { fillOld(v); }, [](Vault& v, const VaultContents& c) { v.restore(c); }, true},
    {"restore over a restored one",
     [](Vault& v) {
       fillOld(v);
       v.restore(v.contents(kBackup));
       v.createSecret(newSecret("Since", "since the restore"));
     },
     [](Vault& v, const VaultContents& c) { v.restore(c); }, true},
    {"step back",
     [](Vault& v) {
       v.createSecret(newSecret("Before", "before"));
       const VaultContents before = v.contents(kBackup);
       v.restore(before);
       v.createSecret(newSecret("Since", "since the restore"));
     },
     [](Vault& v, const VaultContents&) { v.stepBack(); }, false},
};

void expectOldOrNew(Vault& vault, EnumerableSecretStore& store, const Operation& operation, const VaultContents& old,
                    const VaultContents& other, const std::string& where) {
  ASSERT_EQ(vault.storageFailure(), std::nullopt) << where;
  const bool isOld = holds(vault, old);
  const bool isNew = operation.toOther ? holds(vault, other) : vault.records()->secretByName("Since") == nullptr;
  EXPECT_TRUE(isOld != isNew) << where << ": neither the old vault nor the new one";
  // What is left besides the vault is the one step back, whole.
  const std::size_t left = valuesLeft(vault, store);
  std::size_t mine = vault.contents(kBackup).values.size(), before = 0;
  if (vault.canStepBack()) {
    vault.stepBack();
    before = vault.contents(kBackup).values.size();
    vault.stepBack();
  }
  EXPECT_EQ(left, mine + before) << where;
}

class RestoreFaults : public test::VaultFixture, public ::testing::WithParamInterface<Fault::Kind> {};

/// One throwaway vault a call: each operation is failed at its first call, its second, and so on until it succeeds.
TEST_P(RestoreFaults, leaveTheOldVaultOrTheNewOne) {
  const VaultContents other = foreignContents();
  int failures = 0;
  for (const Operation& operation : kOperations) {
    for (int step = 0;; ++step) {
      ASSERT_LT(step, 200) << operation.name;
      const test::TemporaryFolder folder = test::TemporaryFolder::inMemory();
      test::MemorySecretStore memory;
      Fault fault;
      FaultyFiles files(fault);
      FaultyStore store(memory, fault);
      auto vault = std::make_unique<Vault>(folder.path() / "vault", Vault::Ports{files, store, clock_, revoker_});
      operation.prepare(*vault);
      const VaultContents old = vault->contents(kBackup);
      fault = {step, GetParam(), true};
      const std::string failure = sentenceOf([&] { operation.run(*vault, other); });
      const bool reached = fault.steps > step;
      fault = {};
      failures += !failure.empty();
      const std::string where = std::string(operation.name) + ", call " + std::to_string(step) + ", " + failure;
      if (GetParam() == Fault::Kind::once) {
        EXPECT_TRUE(failure.empty() || holds(*vault, old)) << where << ": said to have failed";
        expectOldOrNew(*vault, memory, operation, old, other, where);
      }
      vault = std::make_unique<Vault>(folder.path() / "vault", Vault::Ports{files, memory, clock_, revoker_});
      expectOldOrNew(*vault, memory, operation, old, other, where);
      if (!reached) break;
    }
  }
  EXPECT_GT(failures, 20) << "the faults were not met";
}

std::string nameOf(const ::testing::TestParamInfo<Fault::Kind>& info) {
  constexpr const char* kNames[] = {"once", "behindTheWork", "andAllLaterOnes"};
  return kNames[static_cast<int>(info.param)];
}

INSTANTIATE_TEST_SUITE_P(, RestoreFaults, ::testing::Values(Fault::Kind::once, Fault::Kind::late, Fault::Kind::stays),
                         nameOf);

/// The process ends in the middle, on real files and a real store.
TEST(RestoreDeath, atEachCallLeavesTheOldVaultOrTheNewOne) {
  base::SystemClock clock;
  const VaultContents other = foreignContents();
  int deaths = 0;
  for (const Operation& operation : kOperations) {
    for (int step = 0;; ++step) {
      ASSERT_LT(step, 200) << operation.name;
      const test::TemporaryFolder folder = test::TemporaryFolder::inMemory();
      base::SystemFiles files;
      test::RecordingRevoker revoker;
      platform::PlainKeyFile keys(folder.path() / "store.key", files);
      Fault fault;
      const auto withVault = [&](auto work) {
        FaultyFiles faultyFiles(fault);
        platform::EmbeddedSecretStore real(folder.path() / "values.db", keys);
        FaultyStore store(real, fault);
        Vault vault(folder.path() / "vault", {faultyFiles, store, clock, revoker});
        work(vault, store);
      };
      VaultContents old;
      withVault([&](Vault& vault, auto&) {
        operation.prepare(vault);
        old = vault.contents(kBackup);
      });
      const pid_t child = ::fork();
      if (child == 0) {
        withVault([&](Vault& vault, auto&) {
          fault = {step, Fault::Kind::ends};
          operation.run(vault, other);
        });
        ::_exit(0);
      }
      int status = 0;
      ::waitpid(child, &status, 0);
      ASSERT_TRUE(WIFEXITED(status));
      withVault([&](Vault& vault, auto& store) {
        expectOldOrNew(vault, store, operation, old, other,
                       std::string(operation.name) + ", call " + std::to_string(step));
      });
      if (WEXITSTATUS(status) == 0) break;
      ++deaths;
    }
  }
  EXPECT_GT(deaths, 20);
}

}  // namespace
}  // namespace sorvane::vault
