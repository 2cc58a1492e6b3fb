#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/grant_file.h"
#include "agent/grant_store.h"
#include "crypto/digest.h"
#include "vault/sealed_settings.h"
#include "vault/vault_fixture.h"

namespace sorvane::test {
namespace {

using agent::ClientGrant;
using agent::GrantStore;

/// Stops the process, as far as these grants can tell, before the n-th write to a file or to the credential store.
class Stops {
 public:
  struct Stopped : base::Error {
    Stopped() : Error("stopped") {}
  };
  void after(int writes) { left_ = writes; }
  void never() { left_ = -1; }
  void write() {
    if (left_ == 0) throw Stopped();
    if (left_ > 0) --left_;
  }

 private:
  int left_ = -1;
};

class StoppingStore final : public vault::EnumerableSecretStore {
 public:
  StoppingStore(vault::EnumerableSecretStore& store, Stops& stops) : store_(store), stops_(stops) {}
  void store(std::string_view account, const base::SecretText& value) override {
    stops_.write();
    store_.store(account, value);
  }
  base::SecretText read(std::string_view account) override { return store_.read(account); }
  void remove(std::string_view account) override { store_.remove(account); }
  std::vector<std::string> accounts() override { return store_.accounts(); }

 private:
  vault::EnumerableSecretStore& store_;
  Stops& stops_;
};

class StoppingFiles final : public base::Files {
 public:
  StoppingFiles(base::Files& files, Stops& stops) : files_(files), stops_(stops) {}
  std::optional<Contents> read(const std::filesystem::path& path, std::uint64_t limit) const override {
    return files_.read(path, limit);
  }
  std::optional<base::FileIdentity> identity(const std::filesystem::path& path) const override {
    return files_.identity(path);
  }
  base::FileIdentity writeAtomically(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) override {
    stops_.write();
    return files_.writeAtomically(path, bytes);
  }
  void append(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) override {
    files_.append(path, bytes);
  }
  void remove(const std::filesystem::path& path) override { files_.remove(path); }
  void rename(const std::filesystem::path& from, const std::filesystem::path& to) override { files_.rename(from, to); }
  void makeFolder(const std::filesystem::path& path) override { files_.makeFolder(path); }
  std::vector<std::string> list(const std::filesystem::path& path) const override { return files_.list(path); }

 private:
  base::Files& files_;
  Stops& stops_;
};

class Grants : public VaultFixture {
 public:
  vault::EnumerableSecretStore& store() override { return stoppingStore_; }
  base::Files& files() override { return stoppingFiles_; }

 protected:
  /// As after a new start.
  GrantStore reopened(agent::LegacySwitches switches = {}) { return {file(), files(), vault(), std::move(switches)}; }
  std::filesystem::path file() const { return folder_.path() / "agent_clients.json"; }
  std::vector<std::string> labels(GrantStore& grants) {
    std::vector<std::string> labels;
    for (const ClientGrant& grant : *grants.current()) labels.push_back(grant.label);
    return labels;
  }
  void environment(const std::string& name) { vault().createEnvironment({name, "", {}, {}}); }

  Stops stops_;
  StoppingStore stoppingStore_{memory_, stops_};
  StoppingFiles stoppingFiles_{systemFiles_, stops_};
};

constexpr std::string_view kNotTrusted =
    "Agent connections were changed outside sorvane, so sorvane no longer trusts them. Reconnect each agent in "
    "Settings > Agents (on Linux: run sorvane, then Agent connections).";

TEST_F(Grants, aTokenIsGivenOnceAndFoundByItsExactBytesOnly) {
  GrantStore grants = reopened();
  const base::SecretText token = grants.add({"Editor", {}, true}).token;
  EXPECT_EQ(bytesOf(file()).find(std::string(token.view())), std::string::npos);
  GrantStore later = reopened();
  const auto current = later.current();
  ASSERT_NE(agent::findByTokenHash(*current, agent::tokenHash(token.view())), nullptr);
  std::string other(token.view());
  other.back() = other.back() == 'a' ? 'A' : 'a';
  EXPECT_EQ(agent::findByTokenHash(*current, agent::tokenHash(other)), nullptr);
  const base::SecretText second = later.add({"Shell", {}, false}).token;
  EXPECT_FALSE(second.sameAs(token.view()));
  EXPECT_EQ(sentenceOf([&] {
              later.add({"Shell", {}, false});
            }).substr(0, 58),
            "There already is an agent connection labelled 'Shell'. Not");
}

TEST_F(Grants, aFileChangedByAnotherProgramIsNotTrustedUntilItIsBegunAnew) {
  GrantStore grants = reopened();
  grants.add({"Editor", {}, false});
  std::string text = bytesOf(file());
  text.replace(text.find("\"allowReveal\": false"), 20, "\"allowReveal\": true ");
  put(file(), text);
  GrantStore later = reopened();
  for (GrantStore* const store : {&grants, &later}) {
    EXPECT_TRUE(store->current()->empty());
    EXPECT_EQ(store->view().sentence, kNotTrusted);
  }
  environment("app");
  grants.environmentRemoved("app");
  EXPECT_EQ(bytesOf(file()), text) << "the owner is still to see it";
  EXPECT_EQ(sentenceOf([&] { grants.remove("Editor"); }), kNotTrusted);
  grants.add({"Shell", {}, false});
  EXPECT_THAT(labels(grants), ::testing::ElementsAre("Shell"));
}

TEST_F(Grants, aFileThatNobodyVouchesForIsNotTrusted) {
  put(file(), agent::encodeGrants({{"id", agent::tokenHash("made-up"), "Editor", {}, true, false}}));
  GrantStore grants = reopened();
  EXPECT_TRUE(grants.current()->empty());
  EXPECT_EQ(grants.view().sentence, kNotTrusted);
}

TEST_F(Grants, aSaveThatStopsAnywhereLeavesTheOldOrTheNewGrantsTrusted) {
  reopened().add({"Editor", {}, false});
  bool finished = false;
  for (int writes = 0; !finished; ++writes) {
    ASSERT_LT(writes, 10);
    GrantStore grants = reopened();
    const std::string label = "Shell " + std::to_string(writes);
    stops_.after(writes);
    try {
      grants.add({label, {}, false});
      finished = true;
    } catch (const Stops::Stopped&) {
    } catch (const vault::SettingError&) {
    }
    stops_.never();
    GrantStore later = reopened();
    EXPECT_FALSE(later.view().sentence) << writes;
    EXPECT_THAT(labels(later), ::testing::Contains("Editor")) << writes;
    // Only one state is trusted from now on: the file of a moment ago put back is refused.
    later.add({"Another " + std::to_string(writes), {}, false});
    EXPECT_FALSE(reopened().view().sentence) << writes;
  }
}

TEST_F(Grants, anEarlierFormIsTakenOverWithoutClearTokensAndCountsOnceConfirmed) {
  const std::string legacy =
      R"([{"token":"made-up-token-1","label":"Editor","environment":"app"},{"token":"made-up-token-2","label":"Old"}])";
  const agent::LegacySwitches switches{{agent::tokenHash("made-up-token-1"), {true, false}}};
  environment("app");
  constexpr int kWritesOfATakeOver = 3;
  for (int writes = 0; writes <= kWritesOfATakeOver; ++writes) {
    vault().settings().remove(vault::kAgentClientsSetting);
    put(file(), legacy);
    stops_.after(writes);
    reopened(switches).current();
    stops_.never();
    GrantStore grants = reopened(switches);
    EXPECT_TRUE(grants.current()->empty()) << writes;
    EXPECT_EQ(bytesOf(file()).find("made-up-token"), std::string::npos) << writes;
    ASSERT_EQ(grants.view().grants.size(), 1U) << writes;
    grants.confirm();
    EXPECT_THAT(labels(grants), ::testing::ElementsAre("Editor")) << writes;
    EXPECT_TRUE(grants.current()->front().allowReveal);
  }
}

TEST_F(Grants, aScopeFollowsARenameAndIsEmptyOnceItsEnvironmentIsDeleted) {
  environment("app");
  environment("other");
  GrantStore grants = reopened();
  grants.add({"Editor", "app", false});
  grants.add({"Shell", "other", false});
  grants.environmentRenamed("app", "site");
  EXPECT_EQ(grants.current()->front().environment, "site") << "also before the environment itself is renamed";
  vault().renameEnvironment(vault().records()->projectByName("app")->id, "site");
  EXPECT_EQ(reopened().current()->front().environment, "site");
  grants.environmentRemoved("site");
  vault().deleteEnvironment(vault().records()->projectByName("site")->id);
  environment("site");
  EXPECT_EQ(reopened().current()->front().environment, "");
  EXPECT_EQ(reopened().current()->back().environment, "other");
  // Deleted behind the back of the grants, as by a stop between the two steps of a rename.
  vault().deleteEnvironment(vault().records()->projectByName("other")->id);
  EXPECT_EQ(reopened().current()->back().environment, "");
}

TEST(GrantFile, anythingButTheTwoFormsHoldsNoGrants) {
  for (const std::string_view text :
       {"", "{}", "[1]", R"([{"id":"a"}])", R"([{"token":1,"label":"x"}])",
        R"([{"id":"a","tokenHash":"b","label":"c","allowReveal":"yes","autoApprove":false}])"}) {
    EXPECT_FALSE(agent::decodeGrants(text)) << text;
    EXPECT_FALSE(agent::decodeLegacyGrants(text)) << text;
  }
  const std::vector<ClientGrant> grants{{"id", agent::tokenHash("t"), "Editor", "app", true, false},
                                        {"id2", agent::tokenHash("u"), "Ünï\n", "", false, true}};
  EXPECT_EQ(agent::decodeGrants(agent::encodeGrants(grants)), grants);
}

}  // namespace
}  // namespace sorvane::test
