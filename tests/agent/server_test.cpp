#include "agent/server.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <future>
#include <thread>

#include "agent/server_fixture.h"

namespace sorvane::test {
namespace {

using agent::AgentOp;
using Alone = agent::AgentServer::Alone;
using ::testing::ElementsAre;

using Server = ServerFixture;

TEST_F(Server, theEndpointIsPrivateNamesTheSocketAndIsGoneAfterAStop) {
  struct stat status {};
  for (const auto& path : {socketPath(), endpointPath()}) {
    ASSERT_EQ(::lstat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600) << path;
  }
  const agent::AgentInfo info = endpoint();
  EXPECT_EQ(info.socketPath, socketPath());
  EXPECT_EQ(info.token.size(), 36U);
  server_->stop();
  EXPECT_FALSE(std::filesystem::exists(socketPath()));
  EXPECT_FALSE(std::filesystem::exists(endpointPath()));
}

TEST_F(Server, aNewGenerationHasANewTokenAndTheOldOneOpensNothing) {
  environment("app");
  const agent::AgentRequest old = request(AgentOp::listEnvironments);
  EXPECT_THAT(ask(old).names.value(), ElementsAre("app"));
  server_->stop();
  ASSERT_TRUE(server_->start());
  const agent::AgentResponse answer = ask(old);
  EXPECT_FALSE(answer.ok);
  EXPECT_EQ(answer.errorCode, "unauthorized");
  EXPECT_EQ(
      answer.error,
      "sorvane does not recognize this agent connection, so nothing was shared. Reconnect the agent in Settings > "
      "Agents (on Linux: run sorvane, then Agent connections), then restart it.");
}

TEST_F(Server, requestsAreReadToTheirEndAndRefusedWhenTooLargeOrMalformed) {
  const std::string start = R"({"token":"x","op":"listEnvironments","arg":")";
  const auto sized = [&](std::size_t size) { return start + std::string(size - start.size() - 2, 'a') + "\"}"; };
  EXPECT_THAT(exchangeBytes(sized(65536)), ::testing::HasSubstr("unauthorized"));
  EXPECT_EQ(exchangeBytes(sized(65537)), R"({"ok":false,"error":"request too large"})");
  for (const char* text : {"", "{", "[]", R"({"op":"listEnvironments"})", R"({"token":"x"})",
                           R"({"token":"x","op":"listEverything"})", R"({"token":1,"op":"listEnvironments"})"}) {
    EXPECT_EQ(exchangeBytes(text), R"({"ok":false,"error":"bad request"})") << text;
  }
  const base::Descriptor socket = connected();
  const base::SecretText whole = agent::encodeRequest(request(AgentOp::listEnvironments));
  for (const char c : whole.view()) send(socket.get(), {&c, 1});
  ::shutdown(socket.get(), SHUT_WR);
  EXPECT_EQ(receive(socket.get()), R"({"ok":true,"names":[]})");
}

TEST_F(Server, aStoppedServerSaysSoToTheApplicationToo) {
  server_->stop();
  EXPECT_EQ(server_->handle("{}", agent::ApplicationAsController{}).error,
            "vault unavailable; retry after unlocking or restoring");
}

TEST_F(Server, theApplicationSpeaksForItselfAndForAGrantThatItKnows) {
  environment("app");
  environment("other");
  grants_.set({grant("t", "app", false)});
  const base::SecretText bytes = agent::encodeRequest(granted(request(AgentOp::listEnvironments), ""));
  EXPECT_THAT(server_->handle(bytes.view(), agent::ApplicationAsController{}).names.value(),
              ElementsAre("app", "other"));
  EXPECT_THAT(server_->handle(bytes.view(), agent::ApplicationForGrant{"id-t"}).names.value(), ElementsAre("app"));
  EXPECT_EQ(server_->handle(bytes.view(), agent::ApplicationForGrant{"gone"}).error,
            "Connect this agent before starting its task session.");
}

TEST_F(Server, aClientThatLeavesWithdrawsItsQuestion) {
  secret("KEY", "made-up-value");
  provider_.answer = untilWithdrawn;
  {
    const base::Descriptor socket = connected();
    send(socket.get(), agent::encodeRequest(request(AgentOp::getSecret, "KEY")).view());
    ::shutdown(socket.get(), SHUT_WR);
    provider_.asked.waitFor(1);
  }
  server_->waitUntilIdle(agent::AgentServer::Waiting::everyone);
  EXPECT_TRUE(system_.asked.all().empty());
  EXPECT_TRUE(vault_.accessLog().empty());
}

TEST_F(Server, anAnswerThatOutlivesAStopSharesNothing) {
  secret("KEY", "made-up-value");
  std::promise<void> stopped;
  provider_.answer = [&](const Asked&) {
    stopped.get_future().wait();
    return std::optional(true);
  };
  auto answer = std::async(std::launch::async, [&] { return ask(request(AgentOp::getSecret, "KEY")); });
  provider_.asked.waitFor(1);
  server_->stop();
  ASSERT_TRUE(server_->start());
  stopped.set_value();
  EXPECT_EQ(answer.get().error, "vault unavailable; retry after unlocking or restoring");
  EXPECT_TRUE(vault_.accessLog().empty());
}

TEST_F(Server, aRequestCanWaitForAllOthersButItself) {
  secret("KEY", "made-up-value");
  provider_.answer = untilWithdrawn;
  const base::Descriptor other = connected();
  send(other.get(), agent::encodeRequest(request(AgentOp::getSecret, "KEY")).view());
  ::shutdown(other.get(), SHUT_WR);
  provider_.asked.waitFor(1);
  actions_.action = [&](agent::ActionCall&) {
    server_->stop();
    server_->waitUntilIdle(agent::AgentServer::Waiting::everyoneElse);
    agent::AgentResponse response;
    response.ok = true;
    return response;
  };
  EXPECT_TRUE(ask(request(AgentOp::manageVault)).ok);
}

TEST_F(Server, workIsDoneAloneWhileOthersAreRefusedAndTheEndpointIsOpenedAnew) {
  secret("KEY", "made-up-value");
  provider_.answer = untilWithdrawn;
  const base::Descriptor other = connected();
  send(other.get(), agent::encodeRequest(request(AgentOp::getSecret, "KEY")).view());
  ::shutdown(other.get(), SHUT_WR);
  provider_.asked.waitFor(1);
  std::optional<std::string> refusal;
  actions_.action = [&](agent::ActionCall&) {
    agent::AgentResponse response;
    response.ok = Alone::done == server_->alone(std::chrono::minutes(1), [&] {
      EXPECT_FALSE(server_->isRunning());
      refusal = ask(request(AgentOp::listEnvironments)).error;
    });
    EXPECT_TRUE(server_->isRunning());
    return response;
  };
  const std::string before(endpoint().token.view());
  EXPECT_TRUE(ask(request(AgentOp::manageVault)).ok) << "answered on its own connection";
  EXPECT_EQ(refusal, "vault unavailable; retry after unlocking or restoring");
  EXPECT_TRUE(vault_.accessLog().empty()) << "what waited was withdrawn";
  EXPECT_NE(endpoint().token.view(), before);
  EXPECT_TRUE(ask(request(AgentOp::listEnvironments)).ok);
}

TEST_F(Server, workIsNotDoneAloneWhileARequestGoesOnAndAStopMeanwhileCounts) {
  secret("KEY", "made-up-value");
  std::promise<void> ended;
  provider_.answer = [&](const Asked&) {
    ended.get_future().wait();
    return std::optional(true);
  };
  auto other = std::async(std::launch::async, [&] { return ask(request(AgentOp::getSecret, "KEY")); });
  provider_.asked.waitFor(1);
  bool wasDone = false;
  actions_.action = [&](agent::ActionCall&) {
    agent::AgentResponse response;
    response.ok = Alone::stillBusy == server_->alone(std::chrono::milliseconds(20), [&] { wasDone = true; });
    return response;
  };
  EXPECT_TRUE(ask(request(AgentOp::manageVault)).ok);
  EXPECT_FALSE(wasDone);
  ended.set_value();
  other.wait();
  EXPECT_TRUE(server_->isRunning());
  actions_.action = [&](agent::ActionCall&) {
    agent::AgentResponse response;
    response.ok = Alone::done == server_->alone(std::chrono::minutes(1), [&] { server_->stop(); });
    return response;
  };
  EXPECT_TRUE(ask(request(AgentOp::manageVault)).ok);
  EXPECT_FALSE(server_->isRunning());
  EXPECT_EQ(server_->alone(std::chrono::minutes(1), [&] { wasDone = true; }), Alone::notRunning);
  EXPECT_FALSE(wasDone);
}

TEST_F(Server, aThousandSilentConnectionsDoNotKeepOthersOut) {
  environment("app");
  std::vector<base::Descriptor> silent;
  for (int i = 0; i < 1000; ++i) {
    silent.push_back(connected());
    ASSERT_TRUE(silent.back());
  }
  EXPECT_THAT(ask(request(AgentOp::listEnvironments)).names.value(), ElementsAre("app"));
  // The oldest were dropped, the newest still wait to be heard.
  EXPECT_EQ(receive(silent.front().get()), "");
  pollfd newest{silent.back().get(), POLLIN, 0};
  EXPECT_EQ(::poll(&newest, 1, 0), 0);
}

TEST_F(Server, aPeerThatDoesNotReadItsAnswerHoldsNobodyUp) {
  const std::string longName(60000, 'n');
  const base::Descriptor deaf = connected();
  const int small = 4096;
  ::setsockopt(deaf.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  send(deaf.get(), agent::encodeRequest(request(AgentOp::getSecret, longName)).view());
  ::shutdown(deaf.get(), SHUT_WR);
  EXPECT_TRUE(ask(request(AgentOp::listEnvironments)).ok);
}

TEST_F(Server, theEndpointIsRestoredWhenItsFilesAreChangedOrReplaced) {
  begin(std::chrono::milliseconds(5));
  const auto token = [this]() -> std::string {
    try {
      return std::string(endpoint().token.view());
    } catch (const std::exception&) {
      return {};
    }
  };
  const auto eventually = [](const std::function<bool()>& holds) {
    for (int i = 0; i < 2000 && !holds(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return holds();
  };
  const std::string first = token();
  files_.writeAtomically(endpointPath(), base::bytesOf("{}"));
  EXPECT_TRUE(eventually([&] { return token() == first; }));
  std::filesystem::remove(endpointPath());
  EXPECT_TRUE(eventually([&] { return token() == first; }));
  // In one step: the server may listen anew at any moment after it.
  const std::filesystem::path other = socketPath().string() + ".other";
  files_.writeAtomically(other, base::bytesOf("not a socket"));
  std::filesystem::rename(other, socketPath());
  EXPECT_TRUE(
      eventually([&] { return !token().empty() && token() != first && std::filesystem::is_socket(socketPath()); }));
  EXPECT_TRUE(ask(request(AgentOp::listEnvironments)).ok);
}

}  // namespace
}  // namespace sorvane::test
