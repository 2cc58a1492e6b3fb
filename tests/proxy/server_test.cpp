#include "proxy/server.h"

#include <grp.h>
#include <sys/wait.h>

#include <array>
#include <nlohmann/json.hpp>

#include "platform/linux/peer_owner.h"
#include "proxy/server_fixture.h"

namespace sorvane::proxy::test_server {
namespace {

std::string codeOf(const std::string& answer) {
  const auto body = nlohmann::json::parse(bodyIn(answer), nullptr, false);
  if (body.is_discarded()) return "no JSON";
  const auto& error = body["error"];
  return error.contains("code") ? error["code"].get<std::string>() : error["type"].get<std::string>();
}

TEST_F(ProxyServer, servesARequestAndPassesItOnWhole) {
  start();
  forwarder.answerWith([](ProxyForwardRequest& request) {
    request.client.begin({207, {{"x-one", "1"}, {"x-bad", "a\r\nx-injected: 1"}, {"connection", "keep-alive"}}, {}});
    request.client.write(request.grant->lookupId);
    request.client.write("");
    request.client.write(request.route.upstream);
    request.client.finish();
  });
  for (const std::string host : {"127.0.0.1:", "localhost:", "LOCALHOST:"}) {
    const std::string answer = ask(Request{.host = host + std::to_string(port)});
    EXPECT_EQ(statusOf(answer), 207);
    EXPECT_EQ(headerOf(answer, "x-one"), "1");
    EXPECT_EQ(headerOf(answer, "connection"), "close");
    EXPECT_EQ(headerOf(answer, "transfer-encoding"), "chunked");
    EXPECT_TRUE(headerOf(answer, "x-sorvane-request-id").starts_with("req_"));
    EXPECT_EQ(answer.find("injected"), std::string::npos);
    EXPECT_EQ(bodyIn(answer), "10\r\naaaaaaaaaaaaaaaa\r\nc\r\n/v1/messages\r\n0\r\n\r\n");
  }
  EXPECT_EQ(forwarder.bodies(), std::vector<std::string>(3, "{}"));
}

TEST_F(ProxyServer, refusesByTheFirstCheckThatFails) {
  LocalProxyServer::Configuration configuration;
  configuration.failedTokenDelay = 0;
  configuration.globalBodyBudgetBytes = 1'000;
  start(configuration);
  const std::string json = "content-type: application/json\r\n";
  const std::string key = "x-api-key: " + std::string(kToken) + "\r\n";
  const std::string good = json + key;
  grants.add("small", "cccccccccccccccc", 100);
  struct Case {
    Request request;
    int status;
    std::string code, message;
  };
  const std::string openai = "/openai/v1/responses";
  const std::string invalid = "This sorvane key is not valid: it is unknown, revoked or expired.";
  const std::vector<Case> cases{
      // The host goes before everything, a browser before the route, the route before the method, and so on.
      {{.method = "GET", .path = "/x", .host = "evil.example", .headers = "origin: null\r\n"},
       421,
       "misdirected_request",
       "This address is not one the sorvane proxy answers on."},
      {{.path = openai, .host = "127.0.0.1"}, 421, "misdirected_request", ""},
      {{.path = openai, .host = "127.0.0.1:1"}, 421, "misdirected_request", ""},
      {{.method = "GET", .path = "/x", .headers = "origin: null\r\n"},
       403,
       "browser_request_refused",
       "The sorvane proxy does not answer browser requests."},
      {{.path = openai, .headers = good + "Sec-Fetch-Dest: empty\r\n"}, 403, "browser_request_refused", ""},
      {{.method = "GET", .path = "/x"}, 404, "not_found", "The sorvane proxy has no such endpoint."},
      {{.path = openai + "/"}, 404, "not_found", ""},
      {{.method = "GET", .path = openai, .headers = ""}, 405, "method_not_allowed", ""},
      {{.path = openai, .headers = key}, 415, "unsupported_media_type", "Send the body as application/json."},
      {{.path = openai, .headers = key + "content-type: application/jsonx\r\n"}, 415, "unsupported_media_type", ""},
      {{.path = openai, .headers = json}, 400, "ambiguous_credentials", "Send one sorvane key, in one header."},
      {{.path = openai, .headers = good + "authorization: Bearer " + std::string(kToken) + "\r\n"},
       400,
       "ambiguous_credentials",
       ""},
      {{.path = openai, .headers = good + key}, 400, "ambiguous_credentials", ""},
      {{.path = openai, .headers = json + "authorization: Basic abc\r\n"}, 401, "invalid_api_key", invalid},
      {{.path = openai, .headers = json + "x-api-key: wrong\r\n"}, 401, "invalid_api_key", invalid},
      {{.path = "/openrouter/api/v1/chat/completions", .extra = "expect: x\r\n"},
       403,
       "provider_not_set_up",
       "This sorvane key is not set up for OpenRouter."},
      {{.path = openai, .extra = "expect: 200-ok\r\n", .length = 2'000},
       417,
       "expectation_failed",
       "Only 100-continue is supported."},
      {{.path = openai, .headers = json + "x-api-key: small\r\n", .length = 101},
       413,
       "request_too_large",
       "The request body is larger than 100 bytes."},
      {{.path = openai, .length = 1'001}, 503, "proxy_busy", "The sorvane proxy is busy. Retry shortly."},
      {{.path = openai, .extra = "anthropic-version: 2\r\n", .length = 1},
       400,
       "extra_bytes",
       "The request carries more bytes than its Content-Length says."},
      {{.path = openai, .extra = "anthropic-version: 23-06-01\r\n"},
       400,
       "invalid_header",
       "The `anthropic-version` header is not in a form the sorvane proxy forwards."},
      {{.path = openai, .extra = "anthropic-beta: a,,b\r\n"}, 400, "invalid_header", ""},
      {{.path = openai, .extra = "idempotency-key: a b\r\n"}, 400, "invalid_header", ""},
      {{.path = openai, .extra = "x-client-request-id: " + std::string(129, 'a') + "\r\n"}, 400, "invalid_header", ""},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(text(each.request));
    const std::string answer = ask(each.request);
    EXPECT_EQ(statusOf(answer), each.status);
    EXPECT_EQ(codeOf(answer), each.code);
    const auto body = nlohmann::json::parse(bodyIn(answer));
    EXPECT_TRUE(each.message.empty() || body["error"]["message"] == each.message);
    EXPECT_EQ(body["request_id"], headerOf(answer, "x-sorvane-request-id"));
    EXPECT_EQ(headerOf(answer, "connection"), "close");
    EXPECT_EQ(headerOf(answer, "content-type"), "application/json");
    EXPECT_EQ(headerOf(answer, "allow"), each.status == 405 ? "POST" : "");
    EXPECT_EQ(headerOf(answer, "www-authenticate"), each.status == 401 ? "Bearer" : "");
    EXPECT_EQ(headerOf(answer, "retry-after"), each.status == 503 ? "1" : "");
  }
  EXPECT_TRUE(forwarder.bodies().empty());
  EXPECT_EQ(
      statusOf(ask("POST " + openai + " HTTP/1.1\r\nHost: localhost:" + std::to_string(port) + "\r\n" + good + "\r\n")),
      411);
}

TEST_F(ProxyServer, refusesInTheDialectOfThePath) {
  start();
  const auto bodyFor = [&](const std::string& path) {
    return nlohmann::json::parse(bodyIn(ask(Request{.method = "GET", .path = path})));
  };
  const auto anthropic = bodyFor("/anthropic/v1/models");
  EXPECT_EQ(anthropic["type"], "error");
  EXPECT_EQ(anthropic["error"],
            nlohmann::json({{"type", "not_found_error"}, {"message", "The sorvane proxy has no such endpoint."}}));
  for (const std::string path : {"/openai/v1/models", "/anthropicx", "/"}) {
    EXPECT_EQ(bodyFor(path)["error"], nlohmann::json({{"message", "The sorvane proxy has no such endpoint."},
                                                      {"type", "invalid_request_error"},
                                                      {"param", nullptr},
                                                      {"code", "not_found"}}));
  }
}

TEST_F(ProxyServer, takesABodyOfExactlyTheLimitAndReadsNothingOfALargerOne) {
  auto& server = start();
  const std::string key = "content-type: application/json; charset=utf-8\r\nauthorization: Bearer limited\r\n";
  grants.add("limited", "cccccccccccccccc", 1'048'576);
  EXPECT_EQ(statusOf(ask(Request{.headers = key, .body = std::string(1'048'576, 'a')})), 200);
  EXPECT_EQ(forwarder.bodies().at(0).size(), 1'048'576U);
  EXPECT_EQ(server.counters().bodyBytesRead, 1'048'576);

  const std::string answer = ask(Request{.headers = key, .body = std::string(200'000, 'a'), .length = 1'048'577});
  EXPECT_EQ(statusOf(answer), 413);
  EXPECT_NE(answer.find("The request body is larger than 1 MB."), std::string::npos);
  EXPECT_EQ(server.counters().bodyBytesRead, 1'048'576);
  server.stop();
  EXPECT_GT(server.counters().drainedBytes, 0);
}

TEST_F(ProxyServer, asksForTheBodyOnlyWhenItWillBeTaken) {
  start();
  Client client(port);
  client.send(text({.extra = "expect: 100-continue\r\n", .body = "", .length = 4}));
  EXPECT_EQ(client.readUntil("\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
  client.send("body");
  EXPECT_EQ(statusOf(client.readAll()), 200);
  EXPECT_EQ(forwarder.bodies().at(0), "body");
  // A refusal comes in its place.
  Client refused(port);
  refused.send(text({.extra = "expect: 100-continue\r\n", .body = "", .length = 40'000'000}));
  EXPECT_EQ(statusOf(refused.readUntil("\r\n\r\n")), 413);
}

TEST_F(ProxyServer, slowClientsAreToldWhatDidNotArrive) {
  LocalProxyServer::Configuration configuration;
  configuration.headerReadTimeout = configuration.bodyReadTimeout = 0.1;
  configuration.drainSeconds = 0.05;
  start(configuration);
  const std::string whole = text({.body = "four"});
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, whole.find("Content"), whole.size() - 5}) {
    const std::string answer = ask(whole.substr(0, size));
    EXPECT_EQ(statusOf(answer), 408);
    EXPECT_NE(answer.find("The request head did not arrive in time."), std::string::npos) << size;
  }
  for (const std::size_t size : {whole.size() - 4, whole.size() - 1}) {
    const std::string answer = ask(whole.substr(0, size));
    EXPECT_EQ(statusOf(answer), 408);
    EXPECT_NE(answer.find("The request body did not arrive in time."), std::string::npos) << size;
  }
  EXPECT_TRUE(forwarder.bodies().empty());
}

TEST_F(ProxyServer, aClientThatReadsNothingIsGivenUp) {
  LocalProxyServer::Configuration configuration;
  configuration.writeStallTimeout = 0.1;
  start(configuration);
  base::Mutex mutex;
  base::Condition told;
  std::optional<ChannelEnd> end;
  forwarder.answerWith([&](ProxyForwardRequest& request) {
    request.client.begin({200, {}, {}});
    const std::string piece(65'536, 'a');
    for (int count = 0; count < 1'000 && request.client.write(piece); ++count) {
    }
    const base::Lock lock(mutex);
    end = request.client.ended();
    told.notify_all();
  });
  Client client(port);
  client.send(text({}));
  base::Lock lock(mutex);
  while (!end) told.wait(lock.mutex());
  EXPECT_EQ(end, ChannelEnd::clientGone);
}

TEST_F(ProxyServer, anAnswerThatBreaksOffIsSeenAsSuch) {
  start();
  forwarder.answerWith([](ProxyForwardRequest& request) {
    request.client.begin({200, {}, {}});
    request.client.write("abc");
  });
  EXPECT_EQ(bodyIn(ask(Request{})), "3\r\nabc\r\n");
  forwarder.answerWith([](ProxyForwardRequest& request) {
    request.client.begin({200, {}, 10});
    request.client.write("abc");
    EXPECT_FALSE(request.client.finish());
    EXPECT_FALSE(request.client.write("more than was told"));
  });
  const std::string answer = ask(Request{});
  EXPECT_EQ(headerOf(answer, "content-length"), "10");
  EXPECT_EQ(bodyIn(answer), "abc");
  // A forwarder that answered nothing is not a hang-up.
  forwarder.answerWith([](ProxyForwardRequest&) {});
  EXPECT_EQ(codeOf(ask(Request{.path = "/openai/v1/responses"})), "proxy_unavailable");
}

TEST_F(ProxyServer, aBadTokenIsAnsweredAfterOneSecondAndAGoodOneAtOnce) {
  start();
  const std::string bad = "content-type: application/json\r\nx-api-key: wrong\r\n";
  const auto began = std::chrono::steady_clock::now();
  Client waiting(port);
  waiting.send(text({.headers = bad}));
  EXPECT_EQ(statusOf(ask(Request{})), 200);
  pollfd entry{waiting.socket(), POLLIN, 0};
  EXPECT_EQ(::poll(&entry, 1, 0), 0);
  EXPECT_EQ(statusOf(waiting.readAll()), 401);
  EXPECT_GE(std::chrono::steady_clock::now() - began, 1s);
}

TEST_F(ProxyServer, twentyBadTokensInAMinuteThrottleFurtherOnesAlone) {
  LocalProxyServer::Configuration configuration;
  configuration.failedTokenDelay = 0;
  auto& server = start(configuration);
  const Request bad{.headers = "content-type: application/json\r\nx-api-key: wrong\r\n"};
  for (int count = 0; count < 20; ++count) {
    if (count == 10) clock.advance(10s);
    EXPECT_EQ(statusOf(ask(bad)), 401);
  }
  for (int count = 0; count < 3; ++count) {
    const std::string answer = ask(bad);
    EXPECT_EQ(statusOf(answer), 429);
    EXPECT_EQ(codeOf(answer), "rate_limit_error");
    EXPECT_EQ(headerOf(answer, "retry-after"), "50");
  }
  EXPECT_EQ(statusOf(ask(Request{})), 200);
  clock.advance(49500ms);
  EXPECT_EQ(headerOf(ask(bad), "retry-after"), "1");
  clock.advance(500ms);
  EXPECT_EQ(statusOf(ask(bad)), 401);
  // A new start begins anew.
  for (int count = 0; count < 9; ++count) EXPECT_EQ(statusOf(ask(bad)), 401);
  EXPECT_EQ(statusOf(ask(bad)), 429);
  server.stop();
  port = server.start();
  EXPECT_EQ(statusOf(ask(bad)), 401);
}

TEST(ProxyFailedTokenThrottle, lets16AnswersWaitAtOnce) {
  ProxyFailedTokenThrottle throttle(20);
  std::vector<std::unique_ptr<ProxyFailedTokenThrottle::Waiting>> waiting;
  for (int count = 0; count < 17; ++count) {
    waiting.push_back(std::make_unique<ProxyFailedTokenThrottle::Waiting>(throttle));
    EXPECT_EQ(waiting.back()->granted(), count < 16);
  }
  waiting.pop_back();
  waiting.pop_back();
  EXPECT_TRUE(ProxyFailedTokenThrottle::Waiting(throttle).granted());
}

TEST_F(ProxyServer, the65thConnectionIsToldThatTheProxyIsBusy) {
  start();
  forwarder.answerWith([](ProxyForwardRequest& request) { StubForwarder::hang(request); });
  std::vector<std::unique_ptr<Client>> open;
  for (int count = 0; count < 64; ++count) {
    open.push_back(std::make_unique<Client>(port));
    open.back()->send(text({}));
  }
  forwarder.waitForCalls(64);
  for (int count = 0; count < 20; ++count) {
    const std::string answer = ask(Request{.body = std::string(100'000, 'a')});
    EXPECT_EQ(statusOf(answer), 503);
    EXPECT_NE(answer.find("The sorvane proxy is busy. Retry shortly."), std::string::npos);
    EXPECT_EQ(headerOf(answer, "retry-after"), "1");
  }
  // A place that is left is given to the next.
  forwarder.answerWith(&StubForwarder::ok);
  server_->cut("aaaaaaaaaaaaaaaa");
  for (auto& client : open) EXPECT_EQ(client->readAll(), "");
  EXPECT_EQ(statusOf(ask(Request{.headers = "content-type: application/json\r\nx-api-key: " + std::string(kOtherToken) +
                                            "\r\n"})),
            200);
}

TEST_F(ProxyServer, aGrantThatEndsCutsItsConnectionsInEveryState) {
  auto& server = start();
  const auto connect = [&](const std::string& bytes) {
    auto client = std::make_unique<Client>(port);
    client->send(bytes);
    return client;
  };
  const std::string whole = text({});
  const auto inBody = connect(text({.extra = "expect: 100-continue\r\n", .body = "", .length = 10}));
  EXPECT_NE(inBody->readUntil("100 Continue"), "");
  forwarder.answerWith([](ProxyForwardRequest& request) {
    StubForwarder::hang(request);
    EXPECT_EQ(request.client.ended(), ChannelEnd::cut);
    EXPECT_FALSE(request.client.write("late"));
  });
  const auto inCall = connect(whole);
  forwarder.waitForCalls(1);
  forwarder.answerWith([](ProxyForwardRequest& request) {
    request.client.begin({200, {}, {}});
    request.client.write("first");
    while (request.client.write(std::string(65'536, 'a'))) {
    }
    EXPECT_EQ(request.client.ended(), ChannelEnd::cut);
  });
  const auto inAnswer = connect(whole);
  EXPECT_NE(inAnswer->readUntil("first"), "");
  forwarder.answerWith([](ProxyForwardRequest& request) {
    StubForwarder::hang(request);
    StubForwarder::ok(request);
  });
  const auto other =
      connect(text({.headers = "content-type: application/json\r\nx-api-key: " + std::string(kOtherToken) + "\r\n"}));
  forwarder.waitForCalls(3);

  server.cut("aaaaaaaaaaaaaaaa");
  EXPECT_EQ(inBody->readAll().find("HTTP"), std::string::npos);
  EXPECT_EQ(inCall->readAll(), "");
  EXPECT_EQ(inAnswer->readAll().find("\r\n0\r\n\r\n"), std::string::npos);
  // The other grant's call goes on.
  pollfd entry{other->socket(), POLLIN, 0};
  EXPECT_EQ(::poll(&entry, 1, 0), 0);
  server.stop();
  EXPECT_EQ(other->readAll(), "");
}

TEST_F(ProxyServer, stopEndsSlowConnectionsOfEveryKindAndLeavesNothingBehind) {
  const std::size_t threads = countEntries("/proc/self/task"), descriptors = countEntries("/proc/self/fd");
  {
    auto& server = start();
    forwarder.answerWith([](ProxyForwardRequest& request) {
      if (request.body == "hang") return StubForwarder::hang(request);
      request.client.begin({200, {}, {}});
      while (request.client.write(std::string(65'536, 'a'))) {
      }
    });
    std::vector<std::unique_ptr<Client>> open;
    const std::string bad = "content-type: application/json\r\nx-api-key: wrong\r\n";
    const std::vector<std::string> kinds{"",
                                         text({}).substr(0, 20),
                                         text({.length = 9}),
                                         text({.body = "hang"}),
                                         text({.body = "write"}),
                                         text({.headers = bad}),
                                         "GET / HTTP/1.0\r\n\r\n"};
    for (std::size_t count = 0; count < 64; ++count) {
      open.push_back(std::make_unique<Client>(port));
      open.back()->send(kinds[count % kinds.size()]);
    }
    forwarder.waitForCalls(18);
    const auto began = std::chrono::steady_clock::now();
    server.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - began, 2s);
    EXPECT_FALSE(server.port());
    EXPECT_FALSE(Client(port).connected());
  }
  server_.reset();
  EXPECT_EQ(countEntries("/proc/self/task"), threads);
  EXPECT_EQ(countEntries("/proc/self/fd"), descriptors);
}

TEST_F(ProxyServer, aRefusalReachesAClientThatIsStillSending) {
  LocalProxyServer::Configuration configuration;
  configuration.drainSeconds = 5;
  auto& server = start(configuration);
  // Refused by its head; all of it that may be drained is sent before the answer is read.
  Client client(port);
  ASSERT_TRUE(client.send(text({.path = "/x", .body = std::string(250'000, 'a')})));
  EXPECT_EQ(statusOf(client.readAll()), 404);
  EXPECT_FALSE(client.wasReset());
  EXPECT_LE(server.counters().drainedBytes, 262'144);
  EXPECT_EQ(server.counters().bodyBytesRead, 0);
}

TEST_F(ProxyServer, aStrangerIsClosedWithoutAnAnswer) {
  LocalProxyServer::Configuration configuration;
  configuration.peerCheck = [](const ProxyPeer& peer) { return peer.uid == ::geteuid() && peer.end.port != 0; };
  start(configuration);
  EXPECT_EQ(statusOf(ask(Request{})), 200);
  for (const std::optional<uid_t> uid : {std::optional<uid_t>(::geteuid() + 1), std::optional<uid_t>()}) {
    owners.answer(uid);
    Client client(port);
    client.send(text({}));
    EXPECT_EQ(client.readAll(), "");
  }
  EXPECT_EQ(forwarder.bodies().size(), 1U);
}

// Runs a client in a child process, as another user when `user` is given; its answer's status, 0 when there was none.
// The child is forked from a program whose other threads may hold any lock: it calls nothing that allocates.
int askFromChild(std::uint16_t port, const std::string& bytes, std::optional<uid_t> user) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (user && (::setgroups(0, nullptr) != 0 || ::setgid(*user) != 0 || ::setuid(*user) != 0)) ::_exit(1);
    const Client client(port);
    if (!client.connected()) ::_exit(1);
    client.send(bytes);
    // "HTTP/1.1 200" is answered by its first digit, the end of the connection by nothing.
    std::array<char, 12> start{};
    const ssize_t got = ::recv(client.socket(), start.data(), start.size(), MSG_WAITALL);
    ::_exit(got == static_cast<ssize_t>(start.size()) ? start[9] - '0' : 0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) * 100 : -1;
}

TEST_F(ProxyServer, theKernelTellsAnotherUsersConnectionApart) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  platform::LinuxPeerOwners kernel;
  LocalProxyServer server({}, {grants, forwarder, kernel, clock});
  port = server.start();
  EXPECT_EQ(askFromChild(port, text({}), std::nullopt), 200);
  EXPECT_EQ(askFromChild(port, text({}), 65'534), 0);
  // A control: without the check the same stranger is served.
  LocalProxyServer open({.checkPeerUID = false, .peerCheck = {}}, {grants, forwarder, kernel, clock});
  port = open.start();
  EXPECT_EQ(askFromChild(port, text({}), 65'534), 200);
}

TEST(LinuxPeerOwners, knowsOnlyConnectionsThatAProcessHolds) {
  const base::Descriptor listener(::socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  ASSERT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  const TcpEnd here{INADDR_LOOPBACK, ntohs(address.sin_port)};
  auto client = std::make_unique<Client>(here.port);
  const base::Descriptor accepted(::accept(listener.get(), reinterpret_cast<sockaddr*>(&address), &size));
  const TcpEnd there{ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
  platform::LinuxPeerOwners kernel;
  EXPECT_EQ(kernel.ownerOf(there, here), ::geteuid());
  EXPECT_EQ(kernel.ownerOf({there.address, static_cast<std::uint16_t>(there.port ^ 1)}, here), std::nullopt);
  // A listener is no end of a connection.
  EXPECT_EQ(kernel.ownerOf(here, {INADDR_LOOPBACK, 1}), std::nullopt);
  client.reset();
  EXPECT_EQ(kernel.ownerOf(there, here), std::nullopt);
}

}  // namespace
}  // namespace sorvane::proxy::test_server
