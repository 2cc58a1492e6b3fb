#include "unlock/vault_switch.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

#include "support/doubles.h"
#include "support/faults.h"

namespace sorvane::unlock {
namespace {

namespace fs = std::filesystem;

using Tree = std::map<std::string, std::string>;

Tree treeOf(const fs::path& folder) {
  Tree tree;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (!entry.is_regular_file()) continue;
    std::ostringstream text;
    text << std::ifstream(entry.path()).rdbuf();
    tree[entry.path().lexically_relative(folder)] = text.str();
  }
  return tree;
}

void put(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path) << text;
}

const Tree kOld{{"vault/active.json", "old"}, {"vault/g/secrets", "old"}, {"values.db-wal", "old log"},
                {"values.db", "old"},         {"store.wrap", "old"},      {"agents", "nobody's"}};
const Tree kNew{{"vault/active.json", "new"}, {"values.db", "new"}, {"store.key", "new"}, {"agents", "nobody's"}};

class Switch : public ::testing::Test {
 protected:
  /// A folder with the old vault, and a stage with the new one.
  struct Place {
    test::TemporaryFolder folder;
    fs::path stage;
  };
  VaultSwitch vaults(const Place& place, base::Files& files) {
    return {place.folder.path(), {"values.db-wal", "values.db", "store.key", "store.wrap", "vault"}, files};
  }
  void fill(Place& place) {
    for (const auto& [name, text] : kOld) put(place.folder.path() / name, text);
    place.stage = vaults(place, files_).makeStage();
    for (const auto& [name, text] : kNew) {
      if (name != "agents") put(place.stage / name, text);
    }
  }
  /// What the folder holds without what was set aside, and that by itself.
  std::pair<Tree, Tree> held(const Place& place) {
    std::pair<Tree, Tree> held;
    for (const auto& [name, text] : treeOf(place.folder.path())) {
      const bool isAside = name.starts_with(VaultSwitch::kAsidePrefix);
      isAside ? held.second[name.substr(name.find('/') + 1)] = text : held.first[name] = text;
    }
    return held;
  }
  Tree oldVault() {
    Tree vault = kOld;
    vault.erase("agents");
    return vault;
  }

  base::SystemFiles files_;
};

TEST_F(Switch, putsTheNewVaultInPlaceAndSetsTheOldOneAsideWhole) {
  Place place;
  fill(place);
  const fs::path aside = vaults(place, files_).carryOut(place.stage, base::Date());
  EXPECT_EQ(held(place), std::pair(kNew, oldVault()));
  EXPECT_EQ(treeOf(aside), oldVault());
}

/// For each step: the process ends there, or the step alone fails; the next start finds one vault or the other.
TEST_F(Switch, endedAtAnyStepLeavesTheOldVaultOrTheNewOneAfterTheNextStart) {
  for (const auto kind : {test::Fault::Kind::stays, test::Fault::Kind::once, test::Fault::Kind::late}) {
    int newOnes = 0, oldOnes = 0;
    for (int at = 0;; ++at) {
      Place place;
      fill(place);
      test::Fault fault;
      fault.kind = kind;
      fault.failAt = at;
      test::FaultyFiles files(fault);
      VaultSwitch faulty = vaults(place, files);
      bool failed = false, wasDecided = false;
      try {
        faulty.carryOut(place.stage, base::Date());
      } catch (const base::Error&) {
        failed = true;
        wasDecided = faulty.wasDecided();
      }
      // The next start may be cut off as well, at every step.
      for (int again = 0;; ++again) {
        test::Fault second;
        second.kind = test::Fault::Kind::stays;
        second.failAt = again;
        test::FaultyFiles failing(second);
        try {
          vaults(place, failing).settle();
          break;
        } catch (const base::Error&) {
          ASSERT_LT(again, 40);
        }
      }
      const bool isNew = !failed || wasDecided;
      EXPECT_EQ(held(place), isNew ? std::pair(kNew, oldVault()) : std::pair(kOld, Tree())) << at;
      EXPECT_TRUE(isNew || !fs::exists(place.stage));
      ++(isNew ? newOnes : oldOnes);
      if (fault.steps <= at) break;
      ASSERT_LT(at, 40);
    }
    EXPECT_GT(oldOnes, 0);
    EXPECT_GT(newOnes, 3);
  }
}

TEST_F(Switch, aStageThatWasNotDecidedGoesAndARecordThatNobodyWroteIsNotFollowed) {
  Place place;
  fill(place);
  put(place.folder.path() / ".new-vault.mine", "a file of mine");
  vaults(place, files_).settle();
  EXPECT_FALSE(fs::exists(place.stage));
  EXPECT_TRUE(fs::exists(place.folder.path() / ".new-vault.mine"));
  for (const std::string record :
       {"", "{}",
        R"({"aside":"set-aside.x/../0123456789abcdef","put":["vault"],"stage":".new-vault.0123456789abcdef"})",
        R"({"aside":"set-aside.0123456789abcdef","put":["../vault"],"stage":".new-vault.0123456789abcdef"})",
        R"({"aside":"set-aside.0123456789abcdef","put":["agents"],"stage":".new-vault.0123456789abcdef"})",
        R"({"aside":"set-aside.0123456789abcdef","put":["vault"],"stage":"vault"})"}) {
    put(place.folder.path() / VaultSwitch::kRecordName, record);
    EXPECT_THROW(vaults(place, files_).settle(), VaultSwitchError) << record;
    Tree expected = kOld;
    expected[".new-vault.mine"] = "a file of mine";
    expected[std::string(VaultSwitch::kRecordName)] = record;
    EXPECT_EQ(treeOf(place.folder.path()), expected);
  }
}

}  // namespace
}  // namespace sorvane::unlock
