#include "agent/operations.h"

#include <gmock/gmock.h>

#include <future>

#include "agent/handlers.h"
#include "agent/server_fixture.h"

namespace sorvane::test {
namespace {

using agent::AgentOp;
using agent::AgentResponse;
using agent::ApprovalRule;
using agent::CallerRule;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kValue = "made-up-value-1";
constexpr const char* kNotAllowed =
    "'other' is not available to this client. Enable it in sorvane > Settings > Agents.";

/// An environment "app" with KEY, and one "other" with OTHER.
class Operations : public ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    app_ = environment("app");
    other_ = environment("other");
    key_ = secret("KEY", kValue);
    bound(app_, "KEY", key_);
    bound(other_, "OTHER", secret("OTHER", "made-up-value-2"));
    grants_.set({grant("scoped", "app", false), grant("reading", "app", true), grant("open", {}, true),
                 grant("orphan", "", true)});
  }
  AgentResponse as(std::string_view token, AgentOp op, std::optional<std::string> arg = {},
                   std::optional<std::string> environment = {}) {
    return ask(granted(request(op, std::move(arg), std::move(environment)), token));
  }
  agent::AgentRequest run(const std::string& command, const std::string& environment = "app") {
    agent::AgentRequest made = request(AgentOp::runEnv, {}, environment);
    made.hasPayload = true;
    made.payload["command"] = command;
    return made;
  }
  std::vector<std::string> linesOf(const AgentResponse& response) {
    std::vector<std::string> lines;
    for (const auto& line : response.lines.value()) lines.emplace_back(line.view());
    return lines;
  }
  std::vector<std::string> loggedTools() {
    std::vector<std::string> tools;
    for (const auto& event : vault_.accessLog()) tools.push_back(event.tool);
    return tools;
  }

  vault::Project app_, other_;
  vault::Secret key_;
};

TEST(OperationTable, hasOneRowPerOperationAndLetsNothingSensitivePassUnasked) {
  const std::map<AgentOp, std::pair<CallerRule, ApprovalRule>> asked{
      {AgentOp::renderEnv, {CallerRule::any, ApprovalRule::environmentRead}},
      {AgentOp::runEnv, {CallerRule::any, ApprovalRule::environmentRun}},
      {AgentOp::getSecret, {CallerRule::mayReveal, ApprovalRule::readSecret}},
      {AgentOp::captureSecret, {CallerRule::any, ApprovalRule::change}},
      {AgentOp::createEnvironment, {CallerRule::any, ApprovalRule::change}},
      {AgentOp::deleteEnvironment, {CallerRule::any, ApprovalRule::change}},
      {AgentOp::addToEnvironment, {CallerRule::any, ApprovalRule::change}},
      {AgentOp::importProject, {CallerRule::any, ApprovalRule::change}},
      {AgentOp::captureClipboard, {CallerRule::any, ApprovalRule::change}},
      {AgentOp::beginTaskSession, {CallerRule::any, ApprovalRule::taskSession}},
      {AgentOp::keyEnvFile, {CallerRule::any, ApprovalRule::change}},
      {AgentOp::manageVault, {CallerRule::controller, ApprovalRule::perAction}}};
  for (std::size_t i = 0; i < agent::kOpCount; ++i) {
    const agent::Operation& row = agent::kOperations[i];
    EXPECT_EQ(static_cast<std::size_t>(row.op), i);
    const auto found = asked.find(row.op);
    EXPECT_EQ(row.approval, found == asked.end() ? ApprovalRule::none : found->second.second) << word(row.op);
    EXPECT_EQ(row.caller, found == asked.end() ? CallerRule::any : found->second.first) << word(row.op);
  }
}

TEST_F(Operations, everyOperationIsRefusedToAStrangerAndWhatIsNotServedSaysSo) {
  for (const agent::Operation& row : agent::kOperations) {
    EXPECT_EQ(as("stranger", row.op, "KEY", "app").errorCode, "unauthorized") << word(row.op);
  }
  for (const AgentOp op :
       {AgentOp::keyRequest, AgentOp::keyRequestStatus, AgentOp::keyList, AgentOp::keyRevoke, AgentOp::keyEnvelope}) {
    const AgentResponse answer = ask(request(op, "KEY", "app"));
    EXPECT_FALSE(answer.ok) << word(op);
    EXPECT_TRUE(answer.errorCode) << word(op);
    EXPECT_THAT(answer.error.value(), HasSubstr("Nothing was ")) << word(op);
  }
  EXPECT_THAT(provider_.asked.all(), IsEmpty());
}

TEST_F(Operations, aScopedGrantSeesOneEnvironmentAndIsToldTheSameOfEveryOtherName) {
  EXPECT_THAT(as("scoped", AgentOp::listEnvironments).names.value(), ElementsAre("app"));
  EXPECT_THAT(as("orphan", AgentOp::listEnvironments).names.value(), IsEmpty());
  EXPECT_THAT(as("open", AgentOp::listEnvironments).names.value(), ElementsAre("app", "other"));
  for (const AgentOp op : {AgentOp::listSecrets, AgentOp::renderEnv, AgentOp::runEnv}) {
    const AgentResponse there = as("scoped", op, {}, "other");
    EXPECT_EQ(there.error, kNotAllowed) << word(op);
    EXPECT_EQ(there.errorCode, "environment_not_allowed");
    EXPECT_EQ(as("scoped", op, {}, "missing").errorCode, "environment_not_allowed");
    const AgentResponse missing = as("open", op, {}, "missing");
    EXPECT_EQ(missing.errorCode, "environment_not_found");
    EXPECT_EQ(missing.error,
              "no environment named 'missing'. list_environments shows the names; create_environment or import_project "
              "adds one.");
    EXPECT_EQ(as("open", op).error,
              "no environment named. Pass the environment name; list_environments shows the names.");
  }
  const AgentResponse secrets = as("scoped", AgentOp::listSecrets, {}, "app");
  EXPECT_THAT(secrets.names.value(), ElementsAre("KEY"));
  EXPECT_THAT(secrets.publicNames.value(), ElementsAre("KEY"));
  EXPECT_EQ(as("scoped", AgentOp::deleteEnvironment, "other").error,
            "this client is scoped to 'app' and can't delete 'other'");
  EXPECT_EQ(as("scoped", AgentOp::createEnvironment, "new").error,
            "this client is scoped to 'app' and can't create 'new'");
  EXPECT_EQ(as("scoped", AgentOp::addToEnvironment, "KEY", "other").error,
            "this client is scoped to 'app' and can't add to 'other'");
  EXPECT_EQ(as("reading", AgentOp::getSecret, "OTHER").error, "no secret named 'OTHER' available to this client");
  EXPECT_EQ(as("reading", AgentOp::getSecret, "NONE").error, "no secret named 'NONE' available to this client");
  EXPECT_THAT(provider_.asked.all(), IsEmpty());
}

TEST_F(Operations, aRawValueLeavesOnlyWhereAllowedAfterAnAnswerAndIsLoggedFirst) {
  EXPECT_THAT(as("scoped", AgentOp::getSecret, "KEY").error.value(), StartsWith("Raw values are off for this agent"));
  EXPECT_THAT(provider_.asked.all(), IsEmpty());
  agent::AgentRequest asking = granted(request(AgentOp::getSecret, "KEY"), "reading");
  asking.requestor = "helper\"\n";
  EXPECT_EQ(ask(asking).value.value().view(), kValue);
  const Asked asked = provider_.asked.all().at(0);
  EXPECT_EQ(word(asked.prompt.kind), "readSecret");
  EXPECT_THAT(asked.prompt.reason, StartsWith("Agent (in its own words: \"helper\\\"\\n\"; process '"));
  EXPECT_THAT(asked.prompt.reason, ::testing::EndsWith(") wants to read KEY"));
  EXPECT_EQ(asked.prompt.version, 1);
  EXPECT_TRUE(asked.context.mayBeAnsweredTogether);
  ASSERT_FALSE(asked.context.processes.empty());
  EXPECT_EQ(asked.context.processes.front().pid, ::getpid());
  EXPECT_THAT(loggedTools(), ElementsAre("agent_get_secret"));
  EXPECT_EQ(vault_.accessLog().front().actor, "Agent");
  EXPECT_THAT(notifier_.shown(), ElementsAre("sorvane · secret revealed | read a secret: KEY"));

  provider_.answer = [](const Asked&) { return std::optional(false); };
  const AgentResponse denied = as("reading", AgentOp::getSecret, "KEY");
  EXPECT_EQ(denied.error, "approval denied");
  EXPECT_FALSE(denied.value);
  std::filesystem::remove_all(folder_.path() / "vault");
  provider_.answer = [](const Asked&) { return std::optional(true); };
  EXPECT_FALSE(as("reading", AgentOp::getSecret, "KEY").value);
}

TEST_F(Operations, aRenderIsRedactedAndUnloggedForACallerWithoutRawValues) {
  EXPECT_THAT(linesOf(as("scoped", AgentOp::renderEnv, {}, "app")),
              ElementsAre(StartsWith("# generated by sorvane for project app at "), "KEY=‹redacted›"));
  EXPECT_THAT(provider_.asked.all(), IsEmpty());
  EXPECT_THAT(loggedTools(), IsEmpty());
  EXPECT_EQ(linesOf(as("reading", AgentOp::renderEnv, {}, "app")).at(1), std::string("KEY=") + kValue);
  EXPECT_THAT(provider_.asked.all().at(0).context.details, ElementsAre(HasSubstr("Raw values leave")));
  EXPECT_THAT(loggedTools(), ElementsAre("agent_render_env"));
}

TEST_F(Operations, theDeclaredTargetIsCheckedBeforeTheOwnerIsAsked) {
  vault_.setTarget(app_.id, "production");
  vault_.limitVersion(key_.id, 1, std::vector<std::string>{"production"});
  const auto declaring = [&](agent::AgentRequest request, const char* target) {
    request.hasPayload = true;
    request.payload["deploymentTarget"] = target;
    return ask(request);
  };
  EXPECT_EQ(ask(run(R"(["true"])")).error, "Declare the deployment target before using this environment.");
  EXPECT_EQ(declaring(run(R"(["true"])"), "staging").errorCode, "deployment_policy_refused");
  EXPECT_EQ(declaring(request(AgentOp::renderEnv, {}, "app"), "moon").error, "Invalid deployment target.");
  // A limited version does not leave without an environment that it may be used in, whatever other one is named.
  EXPECT_EQ(declaring(request(AgentOp::getSecret, "KEY"), "production").errorCode, "deployment_policy_refused");
  vault_.setTarget(other_.id, "production");
  EXPECT_EQ(declaring(request(AgentOp::getSecret, "KEY", "other"), "production").errorCode,
            "deployment_policy_refused");
  EXPECT_THAT(provider_.asked.all(), IsEmpty());
  EXPECT_EQ(declaring(request(AgentOp::getSecret, "KEY", "app"), "production").value.value().view(), kValue);
  EXPECT_TRUE(declaring(run(R"(["true"])"), "production").ok);
}

TEST_F(Operations, aCommandGetsTheVariablesOverTheMinimumAndItsOutputIsMasked) {
  bound(app_, "LANG", secret("language", "made-up-language"));
  bound(app_, "LD_PRELOAD", secret("library", "made-up-library"));
  vault_.bind(app_.id, vault::EnvBinding{"NODE_OPTIONS", secret("options", "made-up-options").id, {}, true});
  const AgentResponse answer = ask(run(R"(["show","a  b"])"));
  ASSERT_TRUE(answer.ok) << answer.error.value_or("");
  {
    const base::Lock lock(host_.mutex);
    EXPECT_THAT(host_.words, ElementsAre("show", "a  b"));
    EXPECT_EQ(host_.directory, "/");
    EXPECT_THAT(host_.environment, ::testing::UnorderedElementsAre("KEY=made-up-value-1", "LANG=made-up-language",
                                                                   "NODE_OPTIONS=made-up-options", "PATH=/bin"));
  }
  EXPECT_THAT(std::string(answer.value.value().view()), HasSubstr("KEY=‹redacted›"));
  EXPECT_THAT(std::string(answer.value.value().view()), Not(HasSubstr("made-up-")));
  EXPECT_THAT(std::string(answer.document.value().view()), StartsWith(R"({"exitCode":0,"output":")"));
  EXPECT_THAT(answer.warnings.value(), ElementsAre(StartsWith("LD_PRELOAD: left out")));
  const Asked asked = provider_.asked.all().at(0);
  EXPECT_THAT(asked.context.commandWords, ElementsAre("show", "a  b"));
  EXPECT_EQ(asked.context.directory, "/");
  EXPECT_FALSE(asked.context.mayBeAnsweredTogether);
  EXPECT_EQ(loggedTools().size(), 4U);
}

TEST_F(Operations, aCommandThatCannotBeRunIsRefusedBeforeTheOwnerIsAsked) {
  const auto folder = folder_.path();
  files_.writeAtomically(folder / "file", {});
  std::filesystem::create_symlink("loop", folder / "loop");
  std::string longest = R"([")" + std::string(4000, 'a') + R"("])";
  EXPECT_TRUE(ask(run(longest)).ok);
  const std::size_t asked = provider_.asked.all().size();
  longest.insert(2, "a");
  for (const std::string& command : {std::string("[]"), std::string("true"), std::string("[1]"), longest}) {
    EXPECT_FALSE(ask(run(command)).ok) << command.substr(0, 20);
  }
  for (const std::string& path : {std::string("relative"), (folder / "file").string(), (folder / "loop").string(),
                                  "/" + std::string(5000, 'p'), std::string("/no/such/folder")}) {
    agent::AgentRequest made = run(R"(["true"])");
    made.directory = path;
    EXPECT_EQ(ask(made).error, "Project folder is missing. Choose an existing absolute directory.");
  }
  for (const char* seconds : {"0", "3601", "-1", "", "1.5", "99999999999999999999"}) {
    agent::AgentRequest made = run(R"(["true"])");
    made.payload["timeoutSeconds"] = seconds;
    EXPECT_THAT(ask(made).error.value(), StartsWith("timeoutSeconds must be")) << seconds;
  }
  EXPECT_EQ(provider_.asked.all().size(), asked);
}

TEST_F(Operations, aClientThatLeavesStopsItsCommand) {
  host_.runsUntilSignalled = true;
  {
    const base::Descriptor socket = connected();
    send(socket.get(), agent::encodeRequest(run(R"(["sleep"])")).view());
    ::shutdown(socket.get(), SHUT_WR);
    host_.waitForLaunch();
  }
  server_->waitUntilIdle(agent::AgentServer::Waiting::everyone);
}

TEST_F(Operations, anEnvironmentThatChangedWhileTheOwnerDecidedIsNotDelivered) {
  provider_.answer = [&](const Asked&) {
    vault_.bind(app_.id, vault::EnvBinding{"MORE", vault_.records()->secretByName("OTHER")->id, {}, {}});
    return std::optional(true);
  };
  EXPECT_EQ(ask(run(R"(["true"])")).error, agent::kEnvironmentChanged);
  provider_.answer = [&](const Asked&) {
    vault_.deleteEnvironment(app_.id);
    return std::optional(true);
  };
  EXPECT_EQ(ask(request(AgentOp::renderEnv, {}, "app")).error, "Environment unavailable");
  EXPECT_THAT(loggedTools(), IsEmpty());
}

TEST_F(Operations, thePolicyDecidesWhatIsRememberedAndOnlyOfTheSystemsPrompt) {
  const auto questions = [&] { return system_.asked.all().size(); };
  policy_ = agent::AgentApproval::perEnvironment;
  EXPECT_TRUE(ask(run(R"(["true"])")).ok);
  EXPECT_TRUE(ask(run(R"(["true"])")).ok);
  EXPECT_EQ(provider_.asked.all().size(), 2U) << "the application's answer was remembered";
  provider_.answer = [](const Asked&) { return std::optional<bool>(); };
  system_.reply = {true, {}};
  EXPECT_TRUE(ask(run(R"(["true"])")).ok);
  EXPECT_TRUE(ask(run(R"(["true"])")).ok);
  EXPECT_EQ(questions(), 1U);
  EXPECT_TRUE(ask(run(R"(["true"])", "other")).ok);
  EXPECT_TRUE(ask(request(AgentOp::getSecret, "KEY")).ok);
  EXPECT_EQ(questions(), 3U);
  server_->stop();
  ASSERT_TRUE(server_->start());
  EXPECT_TRUE(ask(run(R"(["true"])")).ok);
  EXPECT_EQ(questions(), 4U) << "a restart must forget";
  for (const auto policy : {agent::AgentApproval::perRequest, agent::AgentApproval::unlocked}) {
    policy_ = policy;
    const std::size_t before = questions();
    EXPECT_TRUE(ask(run(R"(["true"])")).ok);
    EXPECT_EQ(questions(), before + 1);
  }
  system_.reply = {false, "no prompt in tests"};
  EXPECT_EQ(ask(run(R"(["true"])")).error, "approval denied");
}

TEST_F(Operations, changesAskWithTheirWordsAndAreLogged) {
  EXPECT_EQ(ask(request(AgentOp::createEnvironment)).error, "createEnvironment needs a name");
  EXPECT_EQ(ask(request(AgentOp::createEnvironment, "app")).error, "'app' already exists");
  EXPECT_EQ(ask(request(AgentOp::createEnvironment, "new")).value.value().view(), "created environment 'new'");
  EXPECT_EQ(ask(request(AgentOp::addToEnvironment, "KEY")).error,
            "addToEnvironment needs a secret name and an environment");
  EXPECT_EQ(ask(request(AgentOp::addToEnvironment, "KEY", "app")).error, "'KEY' is already in the 'app'");
  EXPECT_THAT(std::string(ask(request(AgentOp::addToEnvironment, "KEY", "made")).value.value().view()),
              StartsWith("created environment 'made' and added 'KEY'"));
  agent::AgentRequest capture = request(AgentOp::captureSecret, "stripe key", "app");
  EXPECT_EQ(ask(capture).error, "captureSecret needs a name and a non-empty value (≤4 KB)");
  capture.value = base::SecretText(std::string(4097, 'v'));
  EXPECT_FALSE(ask(capture).ok);
  capture.value = base::SecretText("made-up-value-3");
  EXPECT_TRUE(ask(capture).ok);
  EXPECT_NE(vault_.records()->projectByName("app")->find("STRIPE_KEY"), nullptr);
  bound(app_, "twice", secret("taken", "made-up-value-4"));
  capture.arg = "twice";
  capture.value = base::SecretText("made-up-value-5");
  const AgentResponse partial = ask(capture);
  EXPECT_TRUE(partial.ok);
  EXPECT_THAT(partial.error.value_or(""), HasSubstr("', but couldn't add it to environment 'app'"));
  EXPECT_EQ(ask(request(AgentOp::deleteEnvironment)).error, "deleteEnvironment needs a name");
  EXPECT_EQ(ask(request(AgentOp::deleteEnvironment, "new")).value.value().view(),
            "deleted environment 'new'. Its secrets remain in the vault.");
  EXPECT_THAT(grants_.removed(), ElementsAre("new"));
  EXPECT_THAT(loggedTools(), ElementsAre("agent_create_environment", "agent_add_to_environment", "agent_capture_secret",
                                         "agent_capture_secret", "agent_delete_environment"));
  std::vector<std::string> reasons;
  for (const Asked& asked : provider_.asked.all()) {
    reasons.push_back(asked.prompt.reason.substr(asked.prompt.reason.find(" wants")));
    EXPECT_FALSE(asked.context.mayBeAnsweredTogether);
  }
  EXPECT_THAT(
      reasons,
      ElementsAre(" wants to create a new environment in your sorvane vault. Name: new",
                  " wants to add a secret to made in your sorvane vault. Secret: KEY",
                  " wants to save a new secret into app. Name: stripe key",
                  " wants to save a new secret into app. Name: twice",
                  " wants to delete an environment from your sorvane vault. Its secrets stay. Environment: new"));
}

TEST_F(Operations, aDeniedChangeChangesNothing) {
  provider_.answer = [](const Asked&) { return std::optional(false); };
  agent::AgentRequest capture = request(AgentOp::captureSecret, "new");
  capture.value = base::SecretText("made-up-value-3");
  EXPECT_EQ(ask(capture).error, "approval denied");
  for (const auto& [op, arg] : {std::pair{AgentOp::createEnvironment, "new"}, {AgentOp::deleteEnvironment, "app"}}) {
    EXPECT_EQ(ask(request(op, arg)).error, "approval denied");
  }
  EXPECT_EQ(ask(request(AgentOp::addToEnvironment, "KEY", "other")).error, "approval denied");
  EXPECT_EQ(vault_.records()->secrets.size(), 2U);
  EXPECT_EQ(vault_.records()->projects.size(), 2U);
  EXPECT_EQ(vault_.records()->projectByName("other")->bindings.size(), 1U);
  EXPECT_THAT(grants_.removed(), IsEmpty());
  EXPECT_THAT(notifier_.shown(), IsEmpty());
}

TEST_F(Operations, theOwnersActionsAreTheControllersAloneAndAskWhateverThePolicySays) {
  EXPECT_EQ(as("open", AgentOp::manageVault).error,
            "Vault management requires the local controller. MCP client tokens cannot manage the vault.");
  policy_ = agent::AgentApproval::unlocked;
  actions_.action = [](agent::ActionCall& call) {
    EXPECT_EQ(call.label, "Terminal");
    EXPECT_THAT(call.requester, StartsWith("Terminal (sorvane command line; process '"));
    AgentResponse response;
    response.ok = call.ask({}) != agent::ApprovalResult::denied;
    return response;
  };
  EXPECT_TRUE(ask(request(AgentOp::manageVault)).ok);
  EXPECT_EQ(provider_.asked.all().size(), 1U);
}

}  // namespace
}  // namespace sorvane::test
