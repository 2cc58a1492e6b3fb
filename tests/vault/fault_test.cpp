// What a change leaves behind when it fails, or when the process ends, at any of its steps: the old state or the new
// one, whole.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "platform/shared/embedded_secret_store.h"
#include "support/faults.h"
#include "vault/journal.h"
#include "vault_fixture.h"

namespace sorvane::vault {
namespace {

using test::Fault;
using test::FaultyFiles;
using test::FaultyStore;
using test::newSecret;
using test::newVersion;
using test::sentenceOf;

struct Operation {
  const char* name;
  void (*run)(Vault&);
  bool (*isDone)(const Records&);
};

const Secret& named(const Records& records, const char* name) {
  return *records.secretByName(name);
}

/// Every operation that touches more than one file, or a file and values.
const Operation kOperations[] = {
    {"create", [](Vault& v) { v.createSecret(newSecret("New", "new value")); },
     [](const Records& r) { return r.secretByName("New") != nullptr; }},
    {"new version", [](Vault& v) { v.addVersion(named(*v.records(), "A").id, newVersion("three")); },
     [](const Records& r) { return named(r, "A").currentVersion == 3; }},
    {"restore an earlier version", [](Vault& v) { v.restoreVersion(named(*v.records(), "A").id, 1); },
     [](const Records& r) { return named(r, "A").currentVersion == 3; }},
    {"delete", [](Vault& v) { v.deleteSecret(named(*v.records(), "A").id); },
     [](const Records& r) { return r.secretByName("A") == nullptr; }},
    {"purge", [](Vault& v) { v.collectGarbage(0); },
     [](const Records& r) { return named(r, "A").find(1)->status == VersionStatus::purged; }},
    {"rename with rebinding", [](Vault& v) { v.renameSecret(named(*v.records(), "A").id, "C", Vault::Rebind::yes); },
     [](const Records& r) { return r.secretByName("C") != nullptr && r.projectByName("Dev")->find("C") != nullptr; }},
    {"delete environment", [](Vault& v) { v.deleteEnvironment(v.records()->projectByName("Dev")->id); },
     [](const Records& r) { return r.projectByName("Dev") == nullptr; }},
};

void fill(Vault& vault) {
  const std::string a = vault.createSecret(newSecret("A", "one")).id;
  vault.addVersion(a, newVersion("two"));
  vault.createSecret(newSecret("B", "other"));
  const std::string dev = vault.createEnvironment({"Dev", "", {}, {}}).id;
  vault.bind(dev, {"A", a, {}, {}});
  vault.bind(dev, {"PINNED", a, 1, {}});
}

/// Old or new, every version with its value, and nothing else in the store after a collection that purges nothing.
void expectWhole(Vault& vault, EnumerableSecretStore& store, const Records& before, const Operation& operation) {
  ASSERT_EQ(vault.storageFailure(), std::nullopt) << operation.name;
  const auto now = vault.records();
  const bool old = now->secrets == before.secrets && now->projects == before.projects;
  EXPECT_TRUE(old != operation.isDone(*now)) << operation.name << ": neither the old state nor the new one";
  constexpr std::int64_t kForever = 1'000'000;
  EXPECT_EQ(vault.collectGarbage(kForever).missingValues, std::vector<std::string>{}) << operation.name;
  std::vector<std::string> expected;
  for (const Secret& secret : now->secrets) {
    for (const SecretVersion& version : secret.versions) {
      if (version.status != VersionStatus::purged) expected.push_back(accountOf(secret.id, version.version));
    }
  }
  std::vector<std::string> held;
  for (const std::string& account : store.accounts()) {
    if (parseVersionAccount(account)) held.push_back(account);
  }
  std::sort(expected.begin(), expected.end());
  std::sort(held.begin(), held.end());
  EXPECT_EQ(held, expected) << operation.name;
}

class Faults : public test::VaultFixture, public ::testing::WithParamInterface<bool> {
 public:
  base::Files& files() override { return faultyFiles_; }
  EnumerableSecretStore& store() override { return faultyStore_; }

 protected:
  Fault fault_;
  FaultyFiles faultyFiles_{fault_};
  FaultyStore faultyStore_{memory_, fault_};
};

/// One throwaway vault a step: each operation is failed at its first write, its second, and so on until it succeeds.
TEST_P(Faults, everyFailedStepLeavesTheOldStateOrTheNewOne) {
  int failures = 0;
  for (const Operation& operation : kOperations) {
    for (int step = 0;; ++step) {
      ASSERT_LT(step, 40) << operation.name;
      const test::TemporaryFolder folder = test::TemporaryFolder::inMemory();
      test::MemorySecretStore memory;
      Fault fault;
      FaultyFiles faultyFiles(fault);
      FaultyStore faultyStore(memory, fault);
      auto vault =
          std::make_unique<Vault>(folder.path() / "vault", Vault::Ports{faultyFiles, faultyStore, clock_, revoker_});
      fill(*vault);
      clock_.advance(std::chrono::hours(1));
      const Records before = *vault->records();
      fault = {step, GetParam() ? Fault::Kind::stays : Fault::Kind::once};
      const std::string failure = sentenceOf([&] { operation.run(*vault); });
      const bool reached = fault.steps > step;
      fault = {};
      failures += !failure.empty();
      if (!GetParam()) {
        // The process lives on: what it could undo is undone before the next operation.
        expectWhole(*vault, memory, before, operation);
      }
      vault = std::make_unique<Vault>(folder.path() / "vault", Vault::Ports{faultyFiles, memory, clock_, revoker_});
      expectWhole(*vault, memory, before, operation);
      if (!reached) break;
    }
  }
  EXPECT_GT(failures, 15) << "the faults were not met";
}

INSTANTIATE_TEST_SUITE_P(, Faults, ::testing::Values(false, true),
                         [](const auto& instance) { return instance.param ? "andAllLaterOnes" : "once"; });

/// The process ends in the middle, on real files and a real store.
TEST(Death, atEachBoundaryLeavesTheOldStateOrTheNewOne) {
  base::SystemClock clock;
  int deaths = 0;
  for (const Operation& operation : kOperations) {
    for (int boundary = 1;; ++boundary) {
      ASSERT_LT(boundary, 40) << operation.name;
      const test::TemporaryFolder folder = test::TemporaryFolder::inMemory();
      base::SystemFiles files;
      test::RecordingRevoker revoker;
      platform::PlainKeyFile keys(folder.path() / "store.key", files);
      const auto withVault = [&](auto work) {
        platform::EmbeddedSecretStore store(folder.path() / "values.db", keys);
        Vault vault(folder.path() / "vault", {files, store, clock, revoker});
        work(vault, store);
      };
      Records before;
      withVault([&](Vault& vault, auto&) {
        fill(vault);
        before = *vault.records();
      });
      const pid_t child = ::fork();
      if (child == 0) {
        withVault([&](Vault& vault, auto&) {
          vault.reversalWriteBoundary = [&](int reached) {
            if (reached == boundary) ::_exit(42);
          };
          operation.run(vault);
        });
        ::_exit(0);
      }
      int status = 0;
      ::waitpid(child, &status, 0);
      ASSERT_TRUE(WIFEXITED(status));
      withVault([&](Vault& vault, auto& store) { expectWhole(vault, store, before, operation); });
      if (WEXITSTATUS(status) == 0) break;
      ++deaths;
    }
  }
  EXPECT_GT(deaths, 15);
}

class HostileJournal : public test::VaultFixture {
 protected:
  /// Opens a filled vault beside a journal of somebody's making.
  std::optional<std::string> openWith(std::string_view journal) {
    fill(vault());
    const std::string generation = vault().generation();
    before_ = *vault().records();
    close();
    put(directory() / kJournalFile, journal);
    const auto failure = open().storageFailure();
    close();
    EXPECT_EQ(bytesOf(directory() / kJournalFile), journal) << "it was touched";
    std::filesystem::remove(directory() / kJournalFile);
    EXPECT_EQ(open().storageFailure(), std::nullopt);
    EXPECT_EQ(vault().records()->secrets, before_.secrets);
    EXPECT_EQ(valueOf(before_.secretByName("A")->id, 1), "one");
    return failure;
  }
  Records before_;
};

TEST_F(HostileJournal, thatDoesNotDecodeIsLeftAlone) {
  EXPECT_EQ(openWith("{\"committed\":false"), "Invalid reversal journal");
}

TEST_F(HostileJournal, thatNamesForeignFilesIsNotBelieved) {
  EXPECT_EQ(openWith(R"({"committed":false,"copies":[],"files":{"../../outside":"AAAA"}})"), "Invalid reversal files");
}

TEST_F(HostileJournal, whoseFilesDoNotOpenUnderTheKeyIsNotBelieved) {
  EXPECT_EQ(openWith(R"({"committed":false,"copies":[],"files":{"secrets.json":"AAAA"}})"), "Invalid reversal files");
}

TEST_F(HostileJournal, thatListsAValueWhichIsStillNamedIsNotBelieved) {
  const std::string id = vault().createSecret(newSecret("Kept", "kept")).id;
  EXPECT_EQ(openWith(R"({"committed":false,"copies":[{"id":")" + id + R"(","version":1}],"files":{}})"),
            "Invalid reversal files");
  EXPECT_EQ(valueOf(id, 1), "kept");
}

TEST_F(HostileJournal, thatIsCommittedIsOnlyRemoved) {
  fill(vault());
  close();
  put(directory() / kJournalFile, R"({"committed":true,"copies":[],"files":{}})");
  EXPECT_EQ(open().storageFailure(), std::nullopt);
  EXPECT_FALSE(std::filesystem::exists(directory() / kJournalFile));
}

class Damage : public test::VaultFixture {};

TEST_F(Damage, isToldWithItsSentenceAndNothingIsChanged) {
  const std::string keyFailure =
      "sorvane can’t open this vault’s files with the vault key in the Keychain. The key or the files may have been "
      "removed or "
      "replaced. Restore a backup in Settings → Backup.";
  const auto failureAfter = [&](const std::function<void()>& damage) {
    std::filesystem::remove_all(directory());
    memory_.remove(kMetadataKeyAccount);
    for (const std::string& account : memory_.accounts()) memory_.remove(account);
    fill(open());
    damage();
    close();
    return open().storageFailure().value_or("");
  };
  EXPECT_EQ(failureAfter([&] { put(fileIn("secrets.json"), ""); }),
            "A vault file is empty or damaged. Restore a backup to recover it.");
  EXPECT_EQ(failureAfter([&] { put(fileIn("secrets.json"), std::string(200, 'x')); }), keyFailure);
  EXPECT_EQ(failureAfter([&] { put(fileIn("secrets.json"), bytesOf(fileIn("projects.json"))); }), keyFailure);
  EXPECT_EQ(failureAfter([&] { memory_.remove(kMetadataKeyAccount); }), keyFailure);
  EXPECT_EQ(failureAfter([&] { put(directory() / "active-vault.json", "{"); }),
            "A vault file is empty or damaged. Restore a backup to recover it.");
  EXPECT_EQ(failureAfter([&] { put(directory() / "active-vault.json", R"({"version":2,"current":"x"})"); }),
            "This vault metadata requires a newer Sorvane version");
  EXPECT_EQ(failureAfter([&] { put(fileIn("cloud-cache.json"), "x"); }), keyFailure);
  EXPECT_NE(failureAfter([&] { std::filesystem::remove(directory() / "active-vault.json"); }), "")
      << "a new vault would bury the values";
}

TEST_F(Damage, aTornLastLineOfTheLogIsRepairedWithoutLosingAnEvent) {
  fill(vault());
  vault().log({"A", "one", "test", {}});
  const auto log = fileIn("access_log.jsonl");
  const std::string whole = bytesOf(log);
  // Whole but for its line feed: kept. Cut in the middle: dropped.
  put(log, whole.substr(0, whole.size() - 1));
  EXPECT_EQ(open().accessLog().size(), 1U);
  put(log, whole + whole.substr(0, whole.size() / 2));
  EXPECT_EQ(open().accessLog().size(), 1U);
  vault().log({"A", "two", "test", {}});
  EXPECT_EQ(vault().accessLog().size(), 2U);
  put(log, "no event\n" + bytesOf(log));
  EXPECT_EQ(sentenceOf([&] { vault().accessLog(); }), "The audit log could not be read, so usage is unavailable.");
  const LogRepair repair = vault().repairAccessLog();
  EXPECT_EQ(repair.moved, 1);
  EXPECT_EQ(repair.kept, 2);
  EXPECT_EQ(bytesOf(repair.movedTo), "no event\n");
  EXPECT_EQ(vault().accessLog().size(), 2U);
}

TEST_F(Damage, aManifestThatChangedUnderneathStopsEveryOperation) {
  fill(vault());
  const std::string manifest = bytesOf(directory() / "active-vault.json");
  put(directory() / "active-vault.json", R"({"version":1,"current":"another"})");
  EXPECT_EQ(sentenceOf([&] { vault().createSecret(newSecret("N", "v")); }), "The active vault changed.");
  EXPECT_EQ(sentenceOf([&] { vault().records(); }), "The active vault changed.");
  put(directory() / "active-vault.json", manifest);
  EXPECT_EQ(sentenceOf([&] { vault().createSecret(newSecret("N", "v")); }), "");
}

}  // namespace
}  // namespace sorvane::vault
