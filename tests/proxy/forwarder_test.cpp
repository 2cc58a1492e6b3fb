#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <condition_variable>
#include <mutex>
#include <set>

#include "proxy/curl_transport.h"
#include "proxy/echo_mask.h"
#include "proxy/forwarder.h"
#include "proxy/in_memory_meter.h"
#include "proxy/upstream_prices.h"
#include "support/corpus.h"
#include "support/doubles.h"
#include "support/tls_stub.h"

namespace sorvane::proxy {
namespace {

using test::chunk;
using test::jsonAnswer;
using test::TlsStub;
using testing::HasSubstr;
using testing::Not;

constexpr std::string_view kKey = "PROVIDER-KEY-0000";
constexpr std::string_view kGrant = "aaaabbbbccccdddd";

/// A client's end that keeps what it is given.
class RecordingClient final : public ProxyClientChannel {
 public:
  RecordingClient() {
    int sockets[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0) throw std::runtime_error("no sockets");
    ours_.reset(sockets[0]);
    theirs.reset(sockets[1]);
  }
  void refuse(const ProxyRefusal& refusal) override {
    EXPECT_FALSE(head) << "a refusal behind an answer";
    refused = refusal;
  }
  bool begin(const ProxyAnswerHead& answer) override {
    EXPECT_FALSE(head || refused);
    head = answer;
    return end == ChannelEnd::open;
  }
  bool flush() override {
    if (onFlush) onFlush();
    return end == ChannelEnd::open;
  }
  bool write(std::string_view bytes) override {
    if (onWrite) onWrite(bytes);
    if (end != ChannelEnd::open) return false;
    text += bytes;
    return true;
  }
  bool finish() override { return finished = end == ChannelEnd::open; }
  int socket() const override { return ours_.get(); }
  ChannelEnd ended() const override { return end; }
  std::stop_token stopped() const override { return stop.get_token(); }

  std::string field(std::string_view name) const {
    for (const ProxyHeader& header : head->headers) {
      if (header.name == name) return header.value;
    }
    return "(none)";
  }

  std::optional<ProxyRefusal> refused;
  std::optional<ProxyAnswerHead> head;
  std::string text;
  bool finished = false;
  std::atomic<ChannelEnd> end = ChannelEnd::open;
  std::stop_source stop;
  std::function<void(std::string_view)> onWrite;
  std::function<void()> onFlush;
  base::Descriptor theirs;

 private:
  base::Descriptor ours_;
};

class KeptLog final : public ProxyCallLog {
 public:
  void record(const ProxyCallRecord& record) override {
    const std::lock_guard lock(mutex_);
    records.push_back(record);
  }
  std::vector<ProxyCallRecord> records;

 private:
  std::mutex mutex_;
};

constexpr std::string_view kChat =
    R"({"model":"gpt-4.1","max_completion_tokens":100,"messages":[{"role":"user","content":"hi"}]})";
constexpr std::string_view kChatStream =
    R"({"model":"gpt-4.1","stream":true,"max_completion_tokens":100,"messages":[{"role":"user","content":"hi"}]})";
constexpr std::string_view kMessages =
    R"({"model":"claude-haiku-4-5","max_tokens":100,"messages":[{"role":"user","content":"hi"}]})";
constexpr std::string_view kMessagesStream =
    R"({"model":"claude-haiku-4-5","stream":true,"max_tokens":100,"messages":[{"role":"user","content":"hi"}]})";

/// Read once: it takes a while under the sanitizers.
std::shared_ptr<const PriceBook> shippedBook() {
  static const auto book = std::make_shared<const PriceBook>(PriceBook::shipped());
  return book;
}

// The address sanitizer keeps what was freed.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kMemoryTells = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kMemoryTells = false;
#else
constexpr bool kMemoryTells = true;
#endif
#else
constexpr bool kMemoryTells = true;
#endif

/// A forwarder before a stub that stands for every provider.
struct Proxy {
  explicit Proxy(TlsStub::Script script, ProxyLimits limits = ordinary()) : stub(std::move(script)) {
    auto fresh = std::make_shared<ProxyGrant>();
    fresh->lookupId = kGrant;
    fresh->taskSessionId = "session-1";
    fresh->environment = "proj_1";
    fresh->client = "agent";
    for (const ProxyProvider provider : vault::kProxyProviders) {
      fresh->credentials.emplace(provider, ProxyCredential{provider, "sec_1", 1, base::SecretText(kKey)});
    }
    limits.expiresAt = clock.now() + std::chrono::hours(1);
    fresh->limits = limits;
    grant = std::move(fresh);
    meter.open(std::string(kGrant), "pool", limits);
  }
  static ProxyLimits ordinary() {
    ProxyLimits limits;
    limits.budgetMicros = 5'000'000;
    limits.requestsPerMinute = 1'000;
    limits.maxConcurrentCalls = 8;
    limits.callTimeoutSeconds = 20;
    return limits;
  }

  /// Forwards a call to the route that the body is for.
  void call(RecordingClient& client, std::string_view body, std::vector<ProxyHeader> headers = {},
            std::optional<std::string> query = {}) {
    const ProxyRoute* const route = routeOf(
        body.find("claude") == std::string_view::npos ? "/openai/v1/chat/completions" : "/anthropic/v1/messages");
    const ProxyRequestHead head{.method = "POST",
                                .path = std::string(route->path),
                                .query = std::move(query),
                                .headers = std::move(headers),
                                .contentLength = static_cast<std::int64_t>(body.size())};
    forwarder.forward({grant, *route, head, std::string(body), "req-1", client});
  }
  ProxySpend spend() const { return *meter.spendOf(kGrant); }
  const ProxyCallRecord& last() const { return log.records.back(); }

  TlsStub stub;
  test::ManualClock clock;
  int doubleSettled = 0;
  InMemoryProxyMeter meter{clock, [this](std::string_view, const ReservationId&) { ++doubleSettled; }};
  KeptLog log;
  CurlTransport transport{clock, {.version = "1", .authorityPem = stub.authorityPem(), .outboundProxy = {}}};
  std::shared_ptr<const ProxyGrant> grant;
  LocalProxyForwarder forwarder{{.meter = meter,
                                 .log = log,
                                 .transport = transport,
                                 .clock = clock,
                                 .prices = [] { return shippedBook(); },
                                 .refuseUnknownFields = [] { return false; },
                                 .origins = {stub.origin(), stub.origin(), stub.origin()}}};
};

TEST(LocalProxyForwarder, sendsParsedFieldsAndGivesBackWhatClientsKnow) {
  std::optional<test::StubRequest> seen;
  Proxy proxy([&](TlsStub::Connection& connection) {
    seen = connection.next();
    connection.send(jsonAnswer(R"({"id":"m","usage":{"input_tokens":10,"output_tokens":5,"inference_geo":"global"}})",
                               "request-id: r-9\r\nset-cookie: a=b\r\nalt-svc: h3\r\nretry-after: 3\r\n"
                               "anthropic-ratelimit-requests-limit: 7\r\nx-echo: PROVIDER-KEY-0000\r\n"
                               "x-should-retry: PROVIDER-KEY-0000\r\n"));
    connection.awaitEnd();
  });
  RecordingClient client;
  proxy.call(
      client, kMessages,
      {{"Anthropic-Beta", "a-1"}, {"X-Client-Request-Id", "c-1"}, {"Authorization", "Bearer qzt"}, {"X-Other", "1"}},
      "beta=true");
  ASSERT_TRUE(seen && client.head);
  EXPECT_EQ(seen->line, "POST /v1/messages?beta=true HTTP/1.1");
  EXPECT_EQ(seen->body, kMessages);
  std::set<std::string> names;
  for (const auto& [name, value] : seen->headers) names.insert(name);
  EXPECT_EQ(names,
            (std::set<std::string>{"accept", "accept-encoding", "anthropic-beta", "anthropic-version", "content-length",
                                   "content-type", "host", "user-agent", "x-api-key", "x-client-request-id"}));
  EXPECT_EQ(seen->headers.find("anthropic-version")->second, "2023-06-01");
  EXPECT_EQ(seen->headers.find("x-api-key")->second, kKey);

  EXPECT_TRUE(client.finished);
  EXPECT_EQ(client.head->headers.size(), 5u) << "type, id, retry-after, rate limit, should-retry";
  EXPECT_EQ(client.field("request-id"), "r-9");
  EXPECT_EQ(client.field("anthropic-ratelimit-requests-limit"), "7");
  EXPECT_EQ(client.field("x-should-retry"), "*****************");
  EXPECT_EQ(client.head->contentLength, client.text.size());

  // claude-haiku-4-5: $1 in, $5 out for a million: 10 * 1 + 5 * 5 = 35 micros.
  ASSERT_EQ(proxy.log.records.size(), 1u);
  const ProxyCallRecord& record = proxy.last();
  EXPECT_EQ(record.chargedMicros, 35);
  EXPECT_EQ(record.usage.inputTokens, 10);
  EXPECT_EQ(record.usage.outputTokens, 5);
  EXPECT_EQ(proxy.spend().spentMicros, 35);
  EXPECT_EQ(proxy.spend().reservedMicros, 0);
  EXPECT_GT(record.reservedMicros, record.chargedMicros);
  EXPECT_EQ(record.requestId, "req-1");
  EXPECT_EQ(record.grant, kGrant);
  EXPECT_EQ(record.taskSessionId, "session-1");
  EXPECT_EQ(record.environment, "proj_1");
  EXPECT_EQ(record.client, "agent");
  EXPECT_EQ(record.provider, ProxyProvider::anthropic);
  EXPECT_EQ(record.model, "claude-haiku-4-5");
  EXPECT_EQ(record.outcome, CallOutcome::completed);
  EXPECT_EQ(record.status, 200);
  EXPECT_FALSE(record.streamed || record.discrepancy);
  EXPECT_FALSE(record.priceSource.empty() || record.priceVersion.empty());
}

TEST(LocalProxyForwarder, onlyAPlainQueryGoesOnAndOnlyToAnthropic) {
  struct Row {
    std::string_view body;
    std::string query, line;
  };
  const Row rows[] = {{kMessages, "beta=true&a.b-c_d=1", "POST /v1/messages?beta=true&a.b-c_d=1 HTTP/1.1"},
                      {kMessages, "a=%41", "POST /v1/messages HTTP/1.1"},
                      {kMessages, std::string(129, 'a'), "POST /v1/messages HTTP/1.1"},
                      {kChat, "beta=true", "POST /v1/chat/completions HTTP/1.1"}};
  std::string line;
  Proxy proxy([&](TlsStub::Connection& connection) {
    while (auto request = connection.next()) {
      line = request->line;
      connection.send(jsonAnswer("{}"));
    }
  });
  for (const Row& row : rows) {
    RecordingClient client;
    proxy.call(client, row.body, {}, row.query);
    EXPECT_EQ(line, row.line);
  }
}

TEST(LocalProxyForwarder, passesAStreamOnWithoutTheEventThatItAskedFor) {
  const std::string first = "data: {\"choices\":[{\"delta\":{\"content\":\"a\"}}],\"usage\":null}\n\n";
  const std::string usage =
      R"(data: {"choices":[],"usage":{"prompt_tokens":10,"completion_tokens":5,"total_tokens":15}})"
      "\n\n";
  const std::string done = "data: [DONE]\n\n";
  std::mutex mutex;
  std::condition_variable changed;
  bool headSeen = false;
  std::string body;
  Proxy proxy([&](TlsStub::Connection& connection) {
    body = connection.next()->body;
    connection.send(test::kStreamHead);
    {
      std::unique_lock lock(mutex);
      changed.wait(lock, [&] { return headSeen; });
    }
    connection.send(chunk(first));
    connection.send(chunk(usage + done) + "0\r\n\r\n");
    connection.awaitEnd();
  });
  RecordingClient client;
  client.onFlush = [&] {
    const std::lock_guard lock(mutex);
    headSeen = true;
    changed.notify_all();
  };
  proxy.call(client, kChatStream);
  EXPECT_TRUE(client.finished);
  EXPECT_THAT(body, HasSubstr("include_usage"));
  EXPECT_EQ(client.text, first + done);
  EXPECT_EQ(client.field("content-type"), "text/event-stream; charset=utf-8");
  EXPECT_FALSE(client.head->contentLength.has_value());
  EXPECT_EQ(proxy.last().chargedMicros, 60) << "gpt-4.1: 10 * 2 + 5 * 8";
  EXPECT_TRUE(proxy.last().streamed);
}

TEST(LocalProxyForwarder, refusesBeforeAnythingIsSent) {
  struct Row {
    const char* what;
    std::function<void(ProxyLimits&)> limit;
    std::string_view body;
    int status;
    std::string code;
  };
  const Row rows[] = {
      {"budget", [](ProxyLimits& limits) { limits.budgetMicros = 1; }, kMessages, 402, "request_exceeds_limit"},
      {"rate", [](ProxyLimits& limits) { limits.requestsPerMinute = 0; }, kMessages, 429, "rate_limited"},
      {"calls", [](ProxyLimits& limits) { limits.maxConcurrentCalls = 0; }, kMessages, 429, "rate_limited"},
      {"plan", [](ProxyLimits&) {}, R"({"model":"claude-nobody","max_tokens":1,"messages":[]})", 400,
       "model_not_priced"},
  };
  for (const Row& row : rows) {
    ProxyLimits limits = Proxy::ordinary();
    row.limit(limits);
    Proxy proxy(TlsStub::answering(jsonAnswer("{}")), limits);
    RecordingClient client;
    proxy.call(client, row.body);
    ASSERT_TRUE(client.refused) << row.what;
    EXPECT_EQ(client.refused->status, row.status) << row.what;
    EXPECT_EQ(client.refused->code, row.code) << row.what;
    EXPECT_EQ(proxy.stub.connections(), 0);
    EXPECT_TRUE(proxy.log.records.empty()) << "nothing was forwarded";
    EXPECT_EQ(proxy.spend().reservedMicros, 0);
  }
  // twice ((51 + 4,096) x 2 + 1,000 x 8), for the open tier
  ProxyLimits limits = Proxy::ordinary();
  limits.budgetMicros = 2 * kMicrosPerCent - 1;
  Proxy small(TlsStub::answering(jsonAnswer("{}")), limits);
  RecordingClient big;
  small.call(big, R"({"model":"gpt-4.1","max_tokens":1000,"messages":[]})");
  EXPECT_EQ(big.refused->message,
            "This request could cost up to $0.04, which is more than the whole budget of this sorvane key ($0.01). "
            "Nothing was sent. Set a smaller limit of output tokens or shorten the request, or ask the user for a "
            "higher budget in sorvane.");
  Proxy proxy(TlsStub::answering(jsonAnswer("{}")));
  proxy.meter.close(kGrant);
  RecordingClient client;
  proxy.call(client, kMessages);
  EXPECT_EQ(client.refused->code, "invalid_api_key");
}

TEST(LocalProxyForwarder, aClientThatHasItsAnswerMeetsAFreeSlotAndASettledBudget) {
  ProxyLimits limits = Proxy::ordinary();
  limits.maxConcurrentCalls = 1;
  Proxy proxy(
      TlsStub::answering(jsonAnswer(R"({"usage":{"input_tokens":10,"output_tokens":5,"inference_geo":"global"}})")),
      limits);
  RecordingClient client;
  int nested = 0;
  client.onWrite = [&](std::string_view) {
    EXPECT_EQ(proxy.spend().spentMicros, 35);
    EXPECT_EQ(proxy.spend().reservedMicros, 0);
    RecordingClient next;
    proxy.call(next, kMessages);
    EXPECT_FALSE(next.refused);
    ++nested;
  };
  proxy.call(client, kMessages);
  EXPECT_EQ(nested, 1);

  // While the first is unfinished a second is one too many.
  Proxy busy(
      [](auto& connection) {
        connection.next();
        connection.send(std::string(test::kStreamHead) + chunk("event: ping\n\n"));
        connection.awaitEnd();
      },
      limits);
  RecordingClient first;
  first.onWrite = [&](std::string_view) {
    RecordingClient second;
    busy.call(second, kMessagesStream);
    ASSERT_TRUE(second.refused);
    EXPECT_EQ(second.refused->message, "Too many calls are running at once on this sorvane key.");
    first.end = ChannelEnd::cut;
    first.stop.request_stop();
  };
  busy.call(first, kMessagesStream);
  EXPECT_EQ(busy.log.records.size(), 1u);
}

TEST(LocalProxyForwarder, everyWayThatACallEndsIsSettledOnceAndRecorded) {
  const std::string event = "event: ping\ndata: {\"type\":\"ping\"}\n\n";
  const auto streamThenWait = [=](std::string bytes) {
    return [=](TlsStub::Connection& connection) {
      connection.next();
      connection.send(std::string(test::kStreamHead) + chunk(bytes));
      connection.awaitEnd();
    };
  };
  struct Row {
    const char* what;
    TlsStub::Script script;
    std::function<void(RecordingClient&, std::string_view)> onWrite;
    CallOutcome outcome;
    bool charged;
    std::string refused;  ///< the code, where the client gets nothing else
    bool errorEvent = false;
    int seconds = 20;
  };
  const auto nothing = [](RecordingClient&, std::string_view) {};
  const Row rows[] = {
      {"closed without an answer", [](auto& c) { c.next(); }, nothing, CallOutcome::failed, true,
       "provider_connection_lost"},
      {"redirect",
       [](auto& c) {
         c.next();
         c.send("HTTP/1.1 302 Found\r\nLocation: https://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n");
         c.awaitEnd();
       },
       nothing, CallOutcome::failed, true, "provider_redirected"},
      {"no answer in time",
       [](auto& c) {
         c.next();
         c.awaitEnd();
       },
       nothing, CallOutcome::timedOut, true, "provider_timeout", false, 1},
      {"cut between events",
       [=](auto& c) {
         c.next();
         c.send(std::string(test::kStreamHead) + chunk(event));
       },
       nothing, CallOutcome::failed, true, "", true},
      {"cut within an event",
       [=](auto& c) {
         c.next();
         c.send(std::string(test::kStreamHead) + chunk(event.substr(0, event.size() - 1)));
       },
       nothing, CallOutcome::failed, true, "", false},
      {"the client's connection fails", streamThenWait(event),
       [](RecordingClient& client, std::string_view) { client.end = ChannelEnd::clientGone; },
       CallOutcome::clientAborted, true, ""},
      {"the client hangs up while it waits", streamThenWait(event),
       [](RecordingClient& client, std::string_view) { client.theirs.reset(); }, CallOutcome::clientAborted, true, ""},
      {"the grant ends", streamThenWait(event),
       [](RecordingClient& client, std::string_view) {
         client.end = ChannelEnd::cut;
         client.stop.request_stop();
       },
       CallOutcome::cut, true, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    ProxyLimits limits = Proxy::ordinary();
    limits.callTimeoutSeconds = row.seconds;
    Proxy proxy(row.script, limits);
    RecordingClient client;
    client.onWrite = [&](std::string_view bytes) { row.onWrite(client, bytes); };
    proxy.call(client, kMessagesStream);
    ASSERT_EQ(proxy.log.records.size(), 1u);
    EXPECT_EQ(proxy.last().outcome, row.outcome);
    EXPECT_EQ(proxy.last().chargedMicros > 0, row.charged);
    EXPECT_EQ(proxy.spend().spentMicros, proxy.last().chargedMicros);
    EXPECT_EQ(proxy.spend().reservedMicros, 0);
    EXPECT_EQ(proxy.doubleSettled, 0);
    EXPECT_FALSE(client.finished);
    EXPECT_EQ(client.refused ? client.refused->code : "", row.refused);
    EXPECT_EQ(client.text.find("event: error\ndata: {") != std::string::npos, row.errorEvent);
    EXPECT_EQ(proxy.stub.requests(), 1);
  }
}

TEST(LocalProxyForwarder, aClientThatLeavesWithTheLastEventHasItsAnswer) {
  const std::string usage =
      R"(data: {"choices":[],"usage":{"prompt_tokens":10,"completion_tokens":5,"total_tokens":15}})"
      "\n\n";
  for (const bool ends : {true, false}) {
    Proxy proxy([&](TlsStub::Connection& connection) {
      connection.next();
      connection.send(std::string(test::kStreamHead) + chunk(usage) + chunk("data: [DONE]\n\n"));
      connection.send(ends ? "0\r\n\r\n" : "");
      connection.awaitEnd();
    });
    RecordingClient client;
    client.onWrite = [&](std::string_view) { client.theirs.reset(); };
    proxy.call(client, kChatStream);
    EXPECT_EQ(proxy.last().outcome, CallOutcome::completed) << ends;
    EXPECT_EQ(proxy.last().chargedMicros, 60);
  }
}

TEST(LocalProxyForwarder, aProviderThatCannotBeReachedCostsNothing) {
  Proxy proxy(TlsStub::answering(""));
  proxy.transport.configure({.version = "1", .authorityPem = {}, .outboundProxy = {}});
  RecordingClient client;
  proxy.call(client, kMessages);
  ASSERT_TRUE(client.refused);
  EXPECT_EQ(client.refused->status, 502);
  EXPECT_EQ(
      client.refused->message,
      "sorvane could not reach Anthropic. Nothing was sent and nothing is charged. Check the network and try again.");
  EXPECT_EQ(proxy.last().outcome, CallOutcome::notSent);
  EXPECT_EQ(proxy.last().chargedMicros, 0);
  EXPECT_EQ(proxy.spend().spentMicros, 0);
  EXPECT_EQ(proxy.spend().reservedMicros, 0);
}

TEST(LocalProxyForwarder, aCallThatNobodyWaitsForIsNotSent) {
  Proxy proxy(TlsStub::answering(jsonAnswer("{}")));
  RecordingClient cut, gone;
  cut.end = ChannelEnd::cut;
  cut.stop.request_stop();
  gone.theirs.reset();
  for (RecordingClient* const client : {&cut, &gone}) {
    proxy.call(*client, kMessages);
    EXPECT_EQ(proxy.last().outcome, client == &cut ? CallOutcome::cut : CallOutcome::clientAborted);
    EXPECT_EQ(proxy.last().chargedMicros, 0);
  }
  EXPECT_EQ(proxy.stub.connections(), 0);
  EXPECT_EQ(proxy.spend().reservedMicros, 0);
}

TEST(LocalProxyForwarder, aReportAboveTheReservationStopsThePool) {
  Proxy proxy(TlsStub::answering(jsonAnswer(R"({"usage":{"input_tokens":100000,"output_tokens":5}})")));
  RecordingClient client, next;
  proxy.call(client, kMessages);
  EXPECT_TRUE(client.finished);
  EXPECT_TRUE(proxy.last().discrepancy);
  EXPECT_TRUE(proxy.spend().exhausted);
  proxy.call(next, kMessages);
  EXPECT_EQ(next.refused->code, "spend_limit_reached");
}

/// A network that fails as no provider does.
class ThrowingTransport final : public ProxyTransport {
 public:
  UpstreamResult send(const UpstreamRequest&, UpstreamReceiver& receiver, const UpstreamWatch&) override {
    if (answers) {
      receiver.head({.status = 200, .headers = {}, .contentLength = {}, .chunked = false});
      receiver.body(R"({"usage":{"prompt_tokens":10,"completion_tokens":5}})", UpstreamPiece::last);
    }
    throw std::bad_alloc();
  }
  bool answers = false;
};

TEST(LocalProxyForwarder, aCallThatFailsWithinIsSettledOnceAndRecorded) {
  Proxy proxy(TlsStub::answering(""));
  ThrowingTransport transport;
  LocalProxyForwarder forwarder{{.meter = proxy.meter,
                                 .log = proxy.log,
                                 .transport = transport,
                                 .clock = proxy.clock,
                                 .prices = [] { return shippedBook(); },
                                 .refuseUnknownFields = [] { return false; }}};
  const ProxyRoute& route = *routeOf("/openai/v1/chat/completions");
  Micros spent = 0;
  for (const bool answers : {false, true}) {
    transport.answers = answers;
    RecordingClient client;
    const ProxyRequestHead head{
        .method = "POST", .path = std::string(route.path), .query = {}, .headers = {}, .contentLength = 0};
    forwarder.forward({proxy.grant, route, head, std::string(kChat), "req-1", client});
    ASSERT_EQ(proxy.log.records.size(), answers ? 2u : 1u);
    EXPECT_EQ(proxy.last().outcome, CallOutcome::failed);
    EXPECT_EQ(proxy.last().chargedMicros, answers ? 60 : proxy.last().reservedMicros);
    spent += proxy.last().chargedMicros;
    EXPECT_EQ(proxy.spend().spentMicros, spent);
    EXPECT_EQ(proxy.spend().reservedMicros, 0);
    EXPECT_EQ(proxy.doubleSettled, 0);
  }
}

TEST(LocalProxyForwarder, everyAnswerOfTheCorpusEndsClearlyAndIsCharged) {
  // What differs from a general proxy: a redirect is refused as well as not followed, and an answer whose first chunk
  // is malformed is refused while its head is still here.
  const std::map<std::string, std::string> ours = {{"redirect-307.http", "bad_gateway"},
                                                   {"frame-chunk-neg.http", "bad_gateway"},
                                                   {"frame-chunk-0x.http", "bad_gateway"},
                                                   {"frame-chunk-overflow.http", "bad_gateway"}};
  int seen = 0;
  for (const auto& row : test::tableOfFile(test::corpus("http") / "responses.tsv")) {
    SCOPED_TRACE(row.at(0));
    ++seen;
    const std::string answer = test::textOfFile(test::corpus("http") / "responses" / row[0]);
    const std::string verdict = ours.contains(row[0]) ? ours.at(row[0]) : row.at(1);
    Proxy proxy([&](TlsStub::Connection& connection) {
      connection.next();
      connection.send(answer);
    });
    RecordingClient client;
    proxy.call(client, kChat);
    ASSERT_EQ(proxy.log.records.size(), 1u);
    EXPECT_EQ(client.finished, verdict == "relay" || verdict == "relay_filtered") << verdict;
    EXPECT_EQ(client.refused.has_value(), verdict == "bad_gateway") << verdict;
    EXPECT_EQ(client.refused ? client.refused->status : 502, 502);
    EXPECT_THAT(client.text, Not(HasSubstr(kKey)));
    if (client.head) {
      for (const char* kept : {"alt-svc", "strict-transport-security", "link", "set-cookie"}) {
        EXPECT_EQ(client.field(kept), "(none)");
      }
      const std::uint64_t told = client.head->contentLength.value_or(client.text.size());
      EXPECT_TRUE(!client.finished || told == client.text.size()) << told;
    }
    // Only a usage of its own makes a call cheaper than its worst.
    const ProxyCallRecord& record = proxy.last();
    const std::set<std::string> reported = {"sse-usage-twice.http", "sse-multi-data.http"};
    EXPECT_TRUE(reported.contains(row[0]) || record.chargedMicros == record.reservedMicros) << record.chargedMicros;
    EXPECT_TRUE(row[0] != "sse-usage-twice.http" || record.chargedMicros == 60) << record.chargedMicros;
    EXPECT_EQ(proxy.spend().spentMicros, record.chargedMicros);
  }
  EXPECT_EQ(seen, 55);
}

TEST(LocalProxyForwarder, anEndlessAnswerTakesNoMemory) {
  constexpr int kPieces = 1'500;
  const std::string piece = chunk(std::string(65'000, 'x'));
  Proxy proxy([&](TlsStub::Connection& connection) {
    connection.next();
    connection.send("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nTransfer-Encoding: chunked\r\n\r\n");
    for (int n = 0; n < kPieces && connection.send(piece); ++n) {
    }
    connection.send("0\r\n\r\n");
    connection.awaitEnd();
  });
  RecordingClient client;
  std::size_t total = 0;
  rusage before{}, after{};
  client.onWrite = [&](std::string_view bytes) {
    if (total == 0) ::getrusage(RUSAGE_SELF, &before);
    total += bytes.size();
    client.text.clear();
  };
  proxy.call(client, kChat);
  ::getrusage(RUSAGE_SELF, &after);
  EXPECT_TRUE(client.finished);
  EXPECT_EQ(total, std::size_t{65'000} * kPieces);
  if (!kMemoryTells) GTEST_SKIP() << "resident memory tells nothing under a sanitizer";
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 16'384) << "kilobytes, of 97 million bytes passed";
}

TEST(OpenRouterPrices, areFetchedWithoutAKeyAndWithinABound) {
  std::optional<test::StubRequest> seen;
  std::string answer = jsonAnswer(R"({"data":[]})");
  TlsStub stub([&](TlsStub::Connection& connection) {
    while ((seen = connection.next()) && connection.send(answer)) {
    }
  });
  const test::ManualClock clock;
  CurlTransport transport(clock, {.version = "1", .authorityPem = stub.authorityPem(), .outboundProxy = {}});
  const ProxyOrigins origins{"https://127.0.0.1:1", "https://127.0.0.1:1", stub.origin()};
  EXPECT_EQ(fetchOpenRouterPrices(transport, origins), R"({"data":[]})");
  EXPECT_EQ(seen->line, "GET /api/v1/models HTTP/1.1");
  EXPECT_EQ(seen->headers.count("authorization") + seen->headers.count("x-api-key"), 0u);

  const auto reason = [&] {
    try {
      fetchOpenRouterPrices(transport, origins);
    } catch (const PriceListError& error) {
      return error.sentence();
    }
    return std::string();
  };
  answer = jsonAnswer("{}", {}, 503);
  EXPECT_THAT(reason(), HasSubstr("answered with status 503. The prices that sorvane has stay as they are."));
  answer = jsonAnswer(std::string(kMostPriceListBytes + 1, ' '));
  EXPECT_THAT(reason(), HasSubstr("longer than 16 MB"));
}

TEST(EchoMask, overwritesAKeyHoweverItIsSplitAndHoldsBackNothingElse) {
  const base::SecretText key(R"(sk-"a/b\c-0123)");
  const std::string plain = R"(x sk-"a/b\c-0123 y)", escaped = R"(x sk-\"a/b\\c-0123 y)",
                    slashed = R"(x sk-\"a\/b\\c-0123 y)";
  for (const std::string& text : {plain, escaped, slashed}) {
    const std::string expected = "x " + std::string(text.size() - 4, '*') + " y";
    for (std::size_t first = 0; first <= text.size(); ++first) {
      for (std::size_t second = first; second <= text.size(); ++second) {
        EchoMask mask(key);
        std::string out(mask.pass(text.substr(0, first)));
        out += mask.pass(text.substr(first, second - first));
        out += mask.pass(text.substr(second));
        out += mask.rest();
        EXPECT_EQ(out, expected) << first << " " << second;
      }
    }
  }
  EchoMask mask(key);
  EXPECT_EQ(mask.pass("no key sk"), "no key ");
  EXPECT_EQ(mask.pass("ipped s"), "skipped ");
  EXPECT_EQ(mask.pass("k-\"a"), "");
  EXPECT_EQ(mask.rest(), "sk-\"a");
  EchoMask twice(base::SecretText("abcabcabc1"));
  std::string out(twice.pass("abcabc"));
  out += twice.pass("abcabcabc1!");
  EXPECT_EQ(out, "abcabc**********!") << "a match that begins within another's beginning";
}

}  // namespace
}  // namespace sorvane::proxy
