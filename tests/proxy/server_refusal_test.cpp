#include <nlohmann/json.hpp>

#include "proxy/head_reader.h"
#include "proxy/server_fixture.h"

namespace sorvane::proxy::test_server {
namespace {

// "anthropic", "openai", or what came instead.
std::string dialectIn(const std::string& answer) {
  const auto body = nlohmann::json::parse(bodyIn(answer), nullptr, false);
  if (!body.is_object() || !body.contains("error")) return answer;
  if (body["error"].contains("code")) return "openai";
  return body.value("type", "") == "error" ? "anthropic" : answer;
}

TEST_F(ProxyServer, whatIsNoRequestIsRefusedInTheDialectOfItsPath) {
  LocalProxyServer::Configuration configuration;
  configuration.headerReadTimeout = 0.1;
  configuration.drainSeconds = 0.05;
  start(configuration);
  const std::vector<std::pair<std::string, std::string>> targets{{"/anthropic/v1/messages", "anthropic"},
                                                                 {"/anthropic?x", "anthropic"},
                                                                 {"/openai/v1/responses", "openai"},
                                                                 {"/anthropicx", "openai"}};
  for (const auto& [target, dialect] : targets) {
    const std::vector<std::pair<std::string, int>> cases{
        {"POST " + target + std::string(kMaxRequestLineBytes, 'a'), 414},
        {"POST  " + target + " HTTP/1.1\r\n\r\n", 400},
        {"POST " + target + " HTTP/1.1 x\r\n\r\n", 400},
        {"PO(ST " + target + " HTTP/1.1\r\n\r\n", 400},
        {"\r\nPOST " + target + " HTTP/1.0\r\n\r\n", 400},
        {"POST " + target + "<> HTTP/1.1\r\n\r\n", 400},
        {"POST " + target + "\n", 400},
        {"POST " + target + " \x01", 400},
        {"CONNECT " + target + " HTTP/1.1\r\n\r\n", 405},
        {"POST " + target + " HTTP/1.1\r\na b: c\r\n\r\n", 400},
        {"POST " + target, 408},
        {"POST " + target + " HTTP/1.1\r\n", 408},
    };
    for (const auto& [bytes, status] : cases) {
      SCOPED_TRACE(bytes.substr(0, 60));
      const std::string answer = ask(bytes);
      EXPECT_EQ(statusOf(answer), status);
      EXPECT_EQ(dialectIn(answer), dialect);
    }
  }
}

TEST_F(ProxyServer, aConnectionBeyondTheLastIsRefusedInTheDialectOfThePathItNamesALittleLater) {
  start({.maxConnections = 1, .peerCheck = {}});
  forwarder.answerWith(&StubForwarder::hang);
  Client hanging(port);
  hanging.send(text({}));
  forwarder.waitForCalls(1);
  // Again when this thread itself was held up for too long to tell.
  bool inTime = false;
  for (int round = 0; round < 20 && !inTime; ++round) {
    const auto began = std::chrono::steady_clock::now();
    Client client(port);
    std::this_thread::sleep_for(20ms);
    client.send("POST /anthr");
    std::this_thread::sleep_for(20ms);
    client.send("opic/v1/messages HTTP/1.1\r\n");
    inTime = std::chrono::steady_clock::now() - began < 150ms;
    const std::string answer = client.readAll();
    EXPECT_EQ(statusOf(answer), 503);
    EXPECT_TRUE(!inTime || dialectIn(answer) == "anthropic") << answer;
  }
  EXPECT_TRUE(inTime);
  // One that names nothing is told so too, long before its head would be late.
  EXPECT_EQ(dialectIn(ask("")), "openai");
}

TEST_F(ProxyServer, doesNotStartWhereNobodysConnectionIsTold) {
  for (const std::optional<uid_t> uid : {std::optional<uid_t>(), std::optional<uid_t>(::geteuid() + 1)}) {
    owners.answer(uid);
    EXPECT_THROW(start(), ProxyServerError);
    EXPECT_FALSE(server_->port());
  }
  // The same server starts once it is told.
  owners.answer(::geteuid());
  port = server_->start();
  EXPECT_EQ(statusOf(ask(Request{})), 200);
}

TEST_F(ProxyServer, aListenerThatBreaksIsToldAsStoppedAndTheNextStartServes) {
  auto& server = start();
  for (int fd = 0; fd < 1'024; ++fd) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    int listens = 0;
    socklen_t flag = sizeof listens;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0 && address.sin_port == htons(port) &&
        ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &flag) == 0 && listens != 0) {
      ::shutdown(fd, SHUT_RDWR);
    }
  }
  for (int round = 0; round < 500 && server.port(); ++round) std::this_thread::sleep_for(10ms);
  ASSERT_FALSE(server.port());
  port = server.start();
  EXPECT_EQ(statusOf(ask(Request{})), 200);
}

}  // namespace
}  // namespace sorvane::proxy::test_server
