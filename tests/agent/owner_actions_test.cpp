#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <sstream>

#include "base/json.h"
#include "owner_actions_fixture.h"

namespace sorvane::test {
namespace {

using agent::TaskSessions;

/// Valid arguments of every action, in the fixture's vault.
const std::map<std::string, Payload>& validArguments() {
  static const std::map<std::string, Payload> arguments{
      {"status", {}},
      {"secretList", {}},
      {"secretShow", {{"name", "KEY"}}},
      {"secretAdd", {{"name", "NEW"}}},
      {"secretEdit", {{"name", "KEY"}, {"description", "words"}, {"label", "first"}}},
      {"secretRotate", {{"name", "KEY"}}},
      {"secretReveal", {{"name", "KEY"}}},
      {"secretCopy", {{"name", "KEY"}}},
      {"secretRename", {{"name", "KEY"}, {"newName", "OTHER"}}},
      {"secretRestore", {{"name", "KEY"}, {"version", "1"}}},
      {"secretLimit", {{"name", "KEY"}, {"targets", R"(["staging"])"}}},
      {"secretRemove", {{"name", "KEY"}}},
      {"environmentList", {}},
      {"environmentShow", {{"name", "app"}}},
      {"environmentAdd", {{"name", "new"}}},
      {"environmentEdit", {{"name", "app"}, {"description", "words"}}},
      {"environmentBind", {{"name", "app"}, {"variable", "OTHER"}, {"secret", "KEY"}}},
      {"environmentUnbind", {{"name", "app"}, {"variable", "KEY"}}},
      {"environmentMove", {{"name", "app"}, {"variable", "KEY"}, {"position", "1"}}},
      {"environmentTarget", {{"name", "app"}, {"target", "staging"}}},
      {"environmentRename", {{"name", "app"}, {"newName", "site"}}},
      {"environmentRemove", {{"name", "app"}}},
      {"export", {{"name", "app"}, {"format", "env"}}},
      {"exportSecrets", {{"selection", R"([["KEY","KEY"]])"}}},
      {"exportAll", {}},
      {"agentList", {}},
      {"agentAdd", {{"label", "Shell"}}},
      {"agentEdit", {{"label", "Editor"}, {"allowReveal", "true"}}},
      {"agentConfirm", {}},
      {"agentRemove", {{"label", "Editor"}}},
      {"clientStatus", {}},
      {"clientConnect", {{"client", "claude-code"}}},
      {"clientRepair", {{"client", "claude-code"}}},
      {"clientDisconnect", {{"client", "claude-code"}}},
      {"scan", {{"folder", "/"}}},
      {"uninstallPlan", {}},
      {"uninstall", {}},
      {"log", {}},
      {"logUsage", {}},
      {"logRepair", {}},
      {"settingsGet", {}},
      {"settingsSet", {{"name", "rotationGraceDays"}, {"setting", "7"}}},
      {"policyGet", {}},
      {"policySet", {{"policy", "perEnvironment"}}},
      {"gc", {{"days", "30"}}},
      {"storeShow", {}},
      {"storeMove", {{"to", "secret-service"}}},
      {"proxyProtect", {{"name", "CLAUDE"}, {"provider", "anthropic"}}},
      {"proxyUnprotect", {{"name", "PROTECTED"}}},
      {"proxyConfirm", {}},
      {"proxyStatus", {}},
      {"proxyResume", {{"id", "abc"}}},
      {"proxyEndGrant", {{"id", "qzt_local_abz"}}},
      {"proxyLimitsGet", {}},
      {"proxyLimitsSet", {{"budgetCents", "100"}}},
      {"proxyLedger", {}},
      {"proxyPrices", {}},
      {"proxyPricesFetch", {}},
      {"proxyPricesOverride", {}},
      {"backupCreate", {{"file", "/backup"}, {"protection", "none"}}},
      {"backupRecoveryKey", {{"ticket", "nothing"}}},
      {"backupInspect", {{"file", "/backup"}}},
      {"backupShow", {{"file", "/backup"}}},
      {"backupPreview", {{"file", "/backup"}}},
      {"backupRestore", {{"file", "/backup"}, {"sha256", "00"}}},
      {"backupUndo", {}},
      {"phonePair", {}},
      {"phonePairing", {}},
      {"phonePairCancel", {}},
      {"phoneList", {}},
      {"phoneRevoke", {{"phone", "Pocket"}}},
      {"phoneTest", {}},
      {"job", {{"id", "nothing"}}},
      {"jobCancel", {{"id", "nothing"}}},
  };
  return arguments;
}

/// What is sent as the value: own prices are the one that is more than any text.
std::string valueFor(const std::string& action) {
  return action == "proxyPricesOverride" ? "" : "made-up";
}

/// The table of the document: action to whether it asks.
std::map<std::string, bool> documentedActions() {
  std::ifstream file(SORVANE_SOURCE "/docs/owner-actions.md");
  std::map<std::string, bool> actions;
  for (std::string line; std::getline(file, line);) {
    if (!line.starts_with("| `")) continue;
    std::vector<std::string> cells;
    std::stringstream cellsOf(line.substr(1));
    for (std::string cell; std::getline(cellsOf, cell, '|');) cells.push_back(cell);
    const std::string& name = cells.at(0);
    actions[name.substr(2, name.rfind('`') - 2)] = cells.at(2).find("yes") != std::string::npos;
  }
  return actions;
}

TEST_F(OwnerActions, everyDocumentedActionAsksAsDocumentedAndDoesNothingAfterANo) {
  const auto documented = documentedActions();
  ASSERT_EQ(documented.size(), validArguments().size());
  makeProviderKeys();
  answer_ = ApprovalResult::denied;
  for (const auto& [action, asks] : documented) {
    if (!asks) continue;
    SCOPED_TRACE(action);
    const auto records = vault().records();
    const auto agents = grants_.view().grants;
    const std::size_t events = vault().accessLog().size();
    asked_.clear();
    Payload payload = validArguments().at(action);
    payload.emplace("action", action);
    EXPECT_EQ(act(std::move(payload), valueFor(action)).error, "approval denied");
    ASSERT_EQ(asked_.size(), 1U);
    EXPECT_TRUE(asked_.front().starts_with("Terminal (sorvane command line) wants to ")) << asked_.front();
    EXPECT_EQ(vault().records()->secrets, records->secrets);
    EXPECT_EQ(vault().records()->projects, records->projects);
    EXPECT_EQ(grants_.view().grants, agents);
    EXPECT_EQ(vault().accessLog().size(), events);
  }
  for (const auto& [action, asks] : documented) {
    if (asks) continue;
    SCOPED_TRACE(action);
    asked_.clear();
    Payload payload = validArguments().at(action);
    payload.emplace("action", action);
    const AgentResponse response = act(std::move(payload), valueFor(action));
    EXPECT_EQ(response.ok, !action.starts_with("job")) << response.error.value_or("");
    EXPECT_TRUE(asked_.empty());
  }
}

TEST_F(OwnerActions, everyActionThatAsksIsCarriedOutAfterAYes) {
  makeProviderKeys();
  for (const auto& [action, asks] : documentedActions()) {
    if (!asks || action == "secretRemove" || action == "environmentRemove" || action == "agentRemove" ||
        action == "clientDisconnect") {
      continue;
    }
    // What an earlier action renamed or limited is put back by a vault of its own.
    if (action == "secretLimit" || action == "secretRename" || action == "environmentRename" ||
        action == "environmentTarget") {
      continue;
    }
    SCOPED_TRACE(action);
    Payload payload = validArguments().at(action);
    payload.emplace("action", action);
    const AgentResponse response = act(std::move(payload), valueFor(action));
    EXPECT_TRUE(response.ok) << response.error.value_or("");
  }
  EXPECT_TRUE(act({{"action", "secretLimit"}, {"name", "KEY"}, {"targets", R"(["staging"])"}}).ok);
  EXPECT_TRUE(act({{"action", "secretRemove"}, {"name", "KEY"}}).ok);
  EXPECT_EQ(vault().records()->secretByName("KEY"), nullptr);
}

TEST_F(OwnerActions, aClientsConnectionIsAGrantThatGoesWithItsEntry) {
  application_.connectTo("");
  ASSERT_TRUE(act({{"action", "clientConnect"}, {"client", "claude-code"}, {"environment", "app"}}).ok);
  auto made = grants_.view().grants;
  ASSERT_EQ(made.size(), 2U);
  EXPECT_EQ(made.back().label, "Claude Code");
  EXPECT_EQ(made.back().environment, "app");
  // A second connection takes the place of the first, with a token of its own.
  ASSERT_TRUE(act({{"action", "clientRepair"}, {"client", "claude-code"}}).ok);
  const auto repaired = grants_.view().grants;
  ASSERT_EQ(repaired.size(), 2U);
  EXPECT_EQ(repaired.back().environment, "app");
  EXPECT_NE(repaired.back().tokenHash, made.back().tokenHash);
  application_.fails = true;
  EXPECT_EQ(act({{"action", "clientRepair"}, {"client", "claude-code"}}).error, "the file is read-only");
  EXPECT_EQ(grants_.view().grants, repaired) << "what was not written replaces nothing";
  ASSERT_TRUE(act({{"action", "clientDisconnect"}, {"client", "claude-code"}}).ok);
  EXPECT_EQ(grants_.view().grants.size(), 1U);
  EXPECT_FALSE(act({{"action", "clientRepair"}, {"client", "claude-code"}}).ok) << "nothing widens what is gone";
}

TEST_F(OwnerActions, whatChangesAConnectionEndsItsTaskSessions) {
  const auto begin = [this] {
    TaskSessions::NewSession session;
    session.owner = grants_.view().grants.front().tokenHash;
    session.client = "Editor";
    session.environment = "app";
    session.durationSeconds = 60;
    session.epoch = sessions_.epoch();
    session.audit = [](std::string_view) {};
    sessions_.begin(std::move(session));
  };
  for (const Payload& payload : {Payload{{"action", "agentEdit"}, {"label", "Editor"}, {"allowReveal", "true"}},
                                 Payload{{"action", "agentRemove"}, {"label", "Editor"}}}) {
    begin();
    answer_ = ApprovalResult::denied;
    act(payload);
    EXPECT_EQ(sessions_.listAll().size(), 1U);
    answer_ = ApprovalResult::byApplication;
    EXPECT_TRUE(act(payload).ok);
    EXPECT_TRUE(sessions_.listAll().empty());
  }
}

TEST_F(OwnerActions, whatCannotBeDoneIsRefusedBeforeTheOwnerIsAsked) {
  struct Case {
    Payload payload;
    std::string_view sentence;
  };
  const Case cases[] = {
      {{{"action", "secretReveal"}}, "secretReveal needs name. Nothing was changed or shared."},
      {{{"action", "secretReveal"}, {"name", "NONE"}},
       "There is no secret named 'NONE'. Nothing was changed or shared. sorvane secret list shows the names."},
      {{{"action", "secretReveal"}, {"name", "KEY"}, {"version", "9"}}, "Choose a valid version."},
      {{{"action", "secretReveal"}, {"name", "KEY"}, {"version", "1x"}},
       "secretReveal needs a whole number as version. Nothing was changed or shared."},
      {{{"action", "secretRotate"}, {"name", "KEY"}}, "secretRotate needs a non-empty value. Nothing was saved."},
      {{{"action", "secretLimit"}, {"name", "KEY"}, {"targets", R"(["moon"])"}},
       "Choose one or more of development, staging, production."},
      {{{"action", "secretEdit"}, {"name", "KEY"}, {"expiresAt", "tomorrow"}},
       "Use an ISO 8601 date, for example 2026-12-31T00:00:00Z."},
      {{{"action", "environmentBind"}, {"name", "app"}, {"variable", "1A"}, {"secret", "KEY"}},
       "Use letters, digits and underscores; start with a letter or underscore."},
      {{{"action", "environmentBind"}, {"name", "app"}, {"variable", "A"}, {"secret", "KEY"}, {"pin", "0"}},
       "Version must be a positive whole number, or blank for current."},
      {{{"action", "environmentBind"}, {"name", "app"}, {"variable", "A"}, {"secret", "KEY"}, {"pin", "7"}},
       "Choose a valid version."},
      {{{"action", "environmentTarget"}, {"name", "app"}, {"target", "moon"}},
       "Choose one or more of development, staging, production."},
      {{{"action", "agentAdd"}, {"label", "a\nb"}},
       "Choose a label of at most 200 plain characters. Nothing was changed."},
      {{{"action", "gc"}, {"days", "-1"}}, "Choose a nonnegative grace period."},
      {{{"action", "policySet"}, {"policy", "never"}},
       "Choose perRequest, perEnvironment or unlocked. Nothing was changed."},
      {{{"action", "policySet"}}, "policySet needs policy or approver. Nothing was changed."},
      {{{"action", "policySet"}, {"approver", "nobody"}},
       "Choose terminal, system, phone or any. Nothing was changed."},
      {{{"action", "phoneRevoke"}, {"phone", "Other"}}, "no such phone"},
      {{{"action", "scan"}, {"folder", "here"}}, "scan needs an existing absolute folder. Nothing was read."},
      {{{"action", "storeMove"}, {"to", "elsewhere"}}, "not there"},
      {{{"action", "proxyAnything"}}, "Unsupported proxy action"},
      {{{"action", "keyAnything"}}, "Unsupported key action"},
      {{{"action", "syncAnything"}}, "Unsupported environment sync action"},
  };
  for (const Case& test : cases) EXPECT_EQ(act(test.payload).error, test.sentence);
  EXPECT_THAT(asked_, ::testing::IsEmpty());
}

TEST_F(OwnerActions, theReasonSaysWhatTheActionEnds) {
  const std::pair<Payload, std::string_view> cases[] = {
      {{{"action", "secretRotate"}, {"name", "KEY"}}, "rotate a secret and end task sessions. Secret: KEY"},
      {{{"action", "secretLimit"}, {"name", "KEY"}, {"targets", R"(["staging"])"}},
       "change where a secret version may be delivered. This ends task sessions in the 1 environment that uses this "
       "version. Secret: KEY, version 2. Allowed: staging"},
      {{{"action", "secretLimit"}, {"name", "KEY"}, {"version", "1"}, {"targets", "[]"}},
       "change where a secret version may be delivered. No environment uses this version, so no task session ends. "
       "Secret: KEY, version 1. Allowed: everywhere"},
      {{{"action", "environmentTarget"}, {"name", "app"}, {"target", "staging"}},
       "change the deployment target of app. New target: staging"},
      {{{"action", "gc"}, {"days", "1"}}, "permanently purge retired versions older than 1 day"},
  };
  answer_ = ApprovalResult::denied;
  for (const auto& [payload, reason] : cases) {
    asked_.clear();
    act(payload, "made-up");
    EXPECT_THAT(asked_, ::testing::ElementsAre("Terminal (sorvane command line) wants to " + std::string(reason)));
  }
}

TEST_F(OwnerActions, aScopeStaysWithItsEnvironmentWhateverHappensWhileTheOwnerIsAsked) {
  // Renamed by somebody else before the answer: the grant loses the environment that is deleted, under its new name.
  whileAsked_ = [this] {
    grants_.environmentRenamed("app", "site");
    vault().renameEnvironment(idOf("app"), "site");
  };
  EXPECT_TRUE(act({{"action", "environmentRemove"}, {"name", "app"}}).ok);
  EXPECT_EQ(grants_.current()->front().environment, "");

  // The new name was taken meanwhile: nobody's scope moves.
  vault().createEnvironment({"first", "", {}, {}});
  grants_.add({"Shell", "first", false});
  whileAsked_ = [this] {
    vault().createEnvironment({"second", "", {}, {}});
    grants_.add({"Third", "second", false});
  };
  EXPECT_EQ(act({{"action", "environmentRename"}, {"name", "first"}, {"newName", "second"}}).error,
            "a project named 'second' already exists");
  EXPECT_EQ(grants_.current()->at(1).environment, "first");
  EXPECT_EQ(grants_.current()->at(2).environment, "second");
}

TEST_F(OwnerActions, aListNeverHoldsAValue) {
  for (const char* const action : {"status", "secretList", "environmentList", "agentList", "log", "logUsage"}) {
    const AgentResponse response = act({{"action", action}});
    ASSERT_TRUE(response.ok && response.document);
    ASSERT_TRUE(base::parseJson(response.document->view())) << action;
    EXPECT_EQ(response.document->view().find("made-up"), std::string_view::npos) << action;
  }
}

TEST(CopiedValue, isClearedOnceItsTimeIsOverUnlessSomethingElseWasCopied) {
  for (const auto changes : {MemoryClipboard::Changes::counted, MemoryClipboard::Changes::notCounted}) {
    MemoryClipboard clipboard(changes);
    {
      agent::CopiedValue copied(clipboard, std::chrono::milliseconds(1));
      ASSERT_TRUE(copied.copy(base::SecretText("made-up")));
      clipboard.waitUntilEmpty();
    }
    {
      agent::CopiedValue copied(clipboard, std::chrono::hours(1));
      ASSERT_TRUE(copied.copy(base::SecretText("made-up")));
      clipboard.writeOfOthers("of the owner");
    }
    // What others copied is not read where that can be told without.
    EXPECT_EQ(clipboard.reads() == 0, changes == MemoryClipboard::Changes::counted);
    EXPECT_EQ(clipboard.read()->view(), "of the owner");
    {
      agent::CopiedValue copied(clipboard, std::chrono::hours(1));
      ASSERT_TRUE(copied.copy(base::SecretText("made-up")));
    }
    EXPECT_TRUE(clipboard.read()->empty()) << "the end of the application does not leave a value there";
  }
}

TEST(JobsTest, tellsHowFarTheWorkIsStopsItAndForgetsItAfterAnHour) {
  ManualClock clock;
  Jobs jobs(clock);
  std::promise<void> begun, cancelled;
  const std::string id = jobs.start("gc", [&](const Jobs::Step& step) {
    step(3, 10);
    begun.set_value();
    cancelled.get_future().wait();
    step(4, 10);
    return std::optional<std::string>("{}");
  });
  begun.get_future().wait();
  EXPECT_EQ(jobs.view(id)->done, 3);
  EXPECT_EQ(jobs.view(id)->state, Jobs::State::running);
  EXPECT_TRUE(jobs.cancel(id));
  cancelled.set_value();
  const std::string failing = jobs.start(
      "gc", [](const Jobs::Step&) -> std::optional<std::string> { throw agent::ActionError("It could not be done."); });
  while (jobs.view(id)->state == Jobs::State::running || jobs.view(failing)->state == Jobs::State::running) {
    std::this_thread::yield();
  }
  EXPECT_EQ(jobs.view(id)->state, Jobs::State::cancelled);
  EXPECT_EQ(jobs.view(failing)->error, "It could not be done.");
  EXPECT_FALSE(jobs.cancel("nothing"));
  clock.advance(std::chrono::hours(1));
  const std::string next = jobs.start("gc", [](const Jobs::Step&) { return std::optional<std::string>(); });
  EXPECT_FALSE(jobs.view(id));
  EXPECT_TRUE(jobs.view(next));
}

TEST_F(OwnerActions, aBackupIsCheckedBeforeTheQuestionAndMadeAfterIt) {
  EXPECT_EQ(act({{"action", "backupCreate"}, {"file", "relative"}, {"protection", "none"}}).error,
            "backupCreate needs the whole path of the file. Nothing was done.");
  EXPECT_TRUE(asked_.empty());
  const AgentResponse response =
      act({{"action", "backupCreate"}, {"file", "/b"}, {"protection", "passphrase"}}, "made-up words");
  ASSERT_TRUE(response.ok);
  EXPECT_EQ(backups_.noted, std::vector<std::string>{"check /b"});
  const std::string made = backups_.tickets.get_future().get();
  const auto document = base::parseJson(response.document->view());
  EXPECT_EQ(made, document->value("ticket", "") + " passphrase made-up words");
  EXPECT_EQ(asked_.front(), "Terminal (sorvane command line) wants to save a backup of the vault. File: /b");
}

TEST_F(OwnerActions, aRestoreIsOfWhatWasOpenedBeforeTheQuestion) {
  whileAsked_ = [&] { EXPECT_TRUE(backups_.noted.empty()); };
  EXPECT_TRUE(act({{"action", "backupRestore"},
                   {"file", "/b"},
                   {"sha256", "ab"},
                   {"unlock", "recoveryKey"},
                   {"protectKeys", "true"}},
                  "MADEU-P")
                  .ok);
  EXPECT_EQ(details_, std::vector<std::string>{"details of /b ab recovery MADEU-P protecting"});
  EXPECT_EQ(backups_.noted, std::vector<std::string>{"restored /b ab recovery MADEU-P protecting"});
  EXPECT_EQ(act({{"action", "backupShow"}, {"file", "/b"}, {"unlock", "guess"}}).error,
            "The argument unlock is passphrase or recoveryKey. Nothing was done.");
}

TEST_F(OwnerActions, whoCannotBeHeardAnyMoreKeepsTheOwnerOutOfNothing) {
  const auto choose = [&](const char* who) { return act({{"action", "policySet"}, {"approver", who}}); };
  phones_.paired = false;
  const AgentResponse warned = choose("phone");
  ASSERT_TRUE(warned.ok);
  EXPECT_THAT(warned.warnings.value_or(std::vector<std::string>{}), ::testing::SizeIs(1));
  EXPECT_EQ(whoseYesCounts_, std::nullopt) << "the policy was not the phone's when it was asked";
  act({{"action", "phonePair"}});
  EXPECT_EQ(whoseYesCounts_, agent::Approver::any) << "the first phone";
  act({{"action", "secretRemove"}, {"name", "KEY"}});
  EXPECT_EQ(whoseYesCounts_, std::nullopt);
  phones_.known = false;
  act({{"action", "phonePair"}});
  EXPECT_EQ(whoseYesCounts_, agent::Approver::system) << "there may be phones, so not everybody may stand in";
  EXPECT_THAT(details_.back(), ::testing::HasSubstr("cannot be read. A new list takes its place"));
  EXPECT_EQ(phones_.noted, (std::vector<std::string>{"begun", "replaced"}));
  phones_.known = phones_.paired = true;
  act({{"action", "phonePair"}});
  EXPECT_EQ(whoseYesCounts_, std::nullopt) << "the second one";
  act({{"action", "phoneRevoke"}, {"phone", "Pocket"}});
  EXPECT_EQ(whoseYesCounts_, agent::Approver::any) << "it may be lost";
  EXPECT_THAT(phones_.noted, ::testing::Contains("revoked 00ff"));
  phones_.paired = false;
  EXPECT_TRUE(choose("terminal").ok);
  EXPECT_EQ(whoseYesCounts_, agent::Approver::any);
  act({{"action", "phonePair"}});
  EXPECT_EQ(whoseYesCounts_, std::nullopt) << "the terminal is there";
  phones_.full = true;
  asked_.clear();
  EXPECT_EQ(act({{"action", "phonePair"}}).error, "five are paired");
  EXPECT_EQ(asked_, std::vector<std::string>()) << "nobody is asked for what cannot be";
  EXPECT_TRUE(choose("system").ok);
  systemMissing_ = "Install polkit.";
  EXPECT_THAT(choose("system").error.value_or(""), ::testing::StartsWith("Install polkit. Until then"));
}

}  // namespace
}  // namespace sorvane::test
