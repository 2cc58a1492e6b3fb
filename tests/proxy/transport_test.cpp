#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <condition_variable>
#include <future>
#include <mutex>

#include "proxy/curl_transport.h"
#include "proxy/upstream_chunks.h"
#include "support/doubles.h"
#include "support/tls_stub.h"

namespace sorvane::proxy {
namespace {

using test::TlsStub;

/// Keeps what it was given; `stopAfter` pieces it refuses more.
struct Collected final : UpstreamReceiver {
  UpstreamHead answer;
  std::string text;
  int pieces = 0, lasts = 0, stopAfter = -1;
  std::function<void()> onQuiet;

  bool head(UpstreamHead head) override {
    answer = std::move(head);
    return stopAfter != 0;
  }
  bool body(std::string_view bytes, UpstreamPiece piece) override {
    text += bytes;
    lasts += piece == UpstreamPiece::last ? 1 : 0;
    return ++pieces != stopAfter;
  }
  void quiet() override {
    if (onQuiet) onQuiet();
  }
};

/// A gate that a script waits at.
class Gate {
 public:
  void open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void await() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

struct Upstream {
  explicit Upstream(TlsStub::Script script, TlsStub::Protocol protocol = TlsStub::Protocol::http1,
                    CurlTls tls = linkedTls())
      : stub(std::move(script), protocol),
        transport(clock, {.version = "9.8.7", .authorityPem = stub.authorityPem(), .outboundProxy = {}, .tls = tls}) {}
  TlsStub stub;
  test::ManualClock clock;
  CurlTransport transport;

  UpstreamRequest request(std::string_view body = "{}") const {
    UpstreamRequest request;
    request.url = stub.origin() + "/v1/messages";
    request.headers = {{"Content-Type", "application/json"}};
    request.credential = base::SecretText("x-api-key: made-up-key-0001");
    request.body = body;
    return request;
  }
  UpstreamResult send(Collected& collected, UpstreamWatch watch = {}, std::string_view body = "{}") {
    return transport.send(request(body), collected, watch);
  }
};

TEST(CurlTransport, sendsTheGivenFieldsAndKeepsItsConnection) {
  std::vector<test::StubRequest> seen;
  Upstream upstream([&](TlsStub::Connection& connection) {
    while (auto request = connection.next()) {
      seen.push_back(*std::move(request));
      connection.send(test::jsonAnswer(R"({"a":1})", "Request-Id: r-1\r\n"));
    }
  });
  for (int call = 1; call <= 3; ++call) {
    Collected collected;
    const UpstreamResult result = upstream.send(collected);
    EXPECT_FALSE(result.error.has_value());
    EXPECT_TRUE(result.sent);
    EXPECT_EQ(collected.answer.status, 200);
    EXPECT_EQ(*collected.answer.header("request-id"), "r-1");
    EXPECT_EQ(collected.text, R"({"a":1})");
    EXPECT_EQ(collected.lasts, 1);
  }
  EXPECT_EQ(upstream.stub.connections(), 1);
  EXPECT_EQ(upstream.transport.idle(), 1u);
  ASSERT_EQ(seen.size(), 3u);
  std::map<std::string, std::string> fields(seen[2].headers.begin(), seen[2].headers.end());
  EXPECT_EQ(seen[2].line, "POST /v1/messages HTTP/1.1");
  EXPECT_EQ(fields["user-agent"], "sorvane-local-proxy/9.8.7");
  EXPECT_EQ(fields["x-api-key"], "made-up-key-0001");
  EXPECT_EQ(fields["accept-encoding"], "identity");
  EXPECT_EQ(fields.count("expect"), 0u);
  EXPECT_EQ(seen[2].headers.size(), 7u) << "host, agent, accept, encoding, type, key, length";
}

TEST(CurlTransport, speaksHttp2WhereTheProviderDoes) {
  // A server that knows just enough: settings, and for every stream that ends a fixed answer without a table.
  const auto frame = [](char type, char flags, std::uint32_t stream, std::string_view payload) {
    std::string bytes{'\0', static_cast<char>(payload.size() >> 8), static_cast<char>(payload.size()), type, flags};
    for (const int shift : {24, 16, 8, 0}) bytes.push_back(static_cast<char>(stream >> shift));
    return bytes.append(payload);
  };
  Upstream upstream(
      [&](TlsStub::Connection& connection) {
        std::string in;
        connection.send(frame(4, 0, 0, ""));
        bool preface = false;
        for (std::string more; !(more = connection.read()).empty();) {
          in += more;
          if (!preface && in.size() >= 24) {
            in.erase(0, 24);
            preface = true;
          }
          while (preface && in.size() >= 9) {
            const auto byte = [&](std::size_t at) { return std::uint32_t{static_cast<unsigned char>(in[at])}; };
            const std::size_t size = byte(0) << 16 | byte(1) << 8 | byte(2);
            if (in.size() < 9 + size) break;
            const std::uint32_t stream = byte(5) << 24 | byte(6) << 16 | byte(7) << 8 | byte(8);
            if (byte(3) == 0 && (byte(4) & 1) != 0) {
              using namespace std::string_literals;
              connection.send(frame(1, 4, stream, "\x88\0\x0arequest-id\x02r2"s) + frame(0, 0, stream, "two ") +
                              frame(0, 1, stream, "pieces"));
            }
            in.erase(0, 9 + size);
          }
        }
      },
      TlsStub::Protocol::http2);
  for (int call = 0; call < 2; ++call) {
    Collected collected;
    EXPECT_FALSE(upstream.send(collected).error.has_value());
    EXPECT_EQ(collected.answer.status, 200);
    EXPECT_EQ(*collected.answer.header("request-id"), "r2");
    EXPECT_EQ(collected.text, "two pieces");
  }
  EXPECT_EQ(upstream.stub.connections(), 1);
}

class CurlTransportWith : public testing::TestWithParam<CurlTls> {};

// The second as on a system whose libcurl brings another TLS library.
INSTANTIATE_TEST_SUITE_P(Tls, CurlTransportWith, testing::Values(CurlTls::ours, CurlTls::itsOwn));

TEST_P(CurlTransportWith, trustsTheGivenAuthorityAndNoOther) {
  TlsStub other(TlsStub::answering(test::jsonAnswer("{}")));
  Upstream upstream(TlsStub::answering(test::jsonAnswer("{}")), TlsStub::Protocol::http1, GetParam());
  UpstreamRequest request = upstream.request();
  request.url = other.origin() + "/";
  Collected collected;
  const UpstreamResult result = upstream.transport.send(request, collected, {});
  EXPECT_EQ(result.error, ProxyTransportError::notSent);
  EXPECT_FALSE(result.sent);
  EXPECT_EQ(other.requests(), 0);

  EXPECT_FALSE(upstream.send(collected).error.has_value());
  upstream.transport.configure({.version = "1", .authorityPem = {}, .outboundProxy = {}, .tls = GetParam()});
  EXPECT_EQ(upstream.transport.idle(), 0u) << "a connection that another authority vouched for is not kept";
  EXPECT_EQ(upstream.send(collected).error, ProxyTransportError::notSent);
  EXPECT_THROW(upstream.transport.configure(
                   {.version = "1", .authorityPem = "no certificate", .outboundProxy = {}, .tls = GetParam()}),
               AuthorityError);
}

TEST(CurlTransport, asksAnotherTlsLibraryForTheProtocolThatNeedsNoQuestion) {
  ASSERT_EQ(linkedTls(), CurlTls::ours) << "what this system's libcurl was built with";
  Upstream upstream(
      [](TlsStub::Connection& connection) {
        if (connection.next()) connection.send("HTTP/2 200\r\ncontent-length: 2\r\n\r\n{}");
      },
      TlsStub::Protocol::http2, CurlTls::itsOwn);
  Collected collected;
  const UpstreamResult result = upstream.send(collected);
  EXPECT_TRUE(result.error.has_value()) << "an answer that only says so is refused";
}

TEST(CurlTransport, aRequestThatMayHaveBeenReadIsNeverSentAgain) {
  // The second request on a kept connection is read, and then the connection ends without a word.
  for (const bool withReset : {false, true}) {
    Upstream upstream([&](TlsStub::Connection& connection) {
      if (!connection.next()) return;
      connection.send(test::jsonAnswer("{}"));
      if (!connection.next()) return;
      if (withReset) connection.reset();
    });
    Collected collected;
    ASSERT_FALSE(upstream.send(collected).error.has_value());
    const UpstreamResult result = upstream.send(collected);
    EXPECT_EQ(result.error, ProxyTransportError::mayHaveBeenSent) << withReset;
    EXPECT_TRUE(result.sent);
    EXPECT_EQ(upstream.stub.requests(), 2);
    EXPECT_EQ(upstream.transport.idle(), 0u);
  }
}

TEST(CurlTransport, aConnectionFoundDeadIsReplacedBeforeAnythingIsSent) {
  Gate closed;
  Upstream upstream([&](TlsStub::Connection& connection) {
    while (connection.next()) {
      connection.send(test::jsonAnswer("{}"));
      if (connection.number() == 1) {
        connection.drop();
        closed.open();
        return;
      }
    }
  });
  Collected collected;
  ASSERT_FALSE(upstream.send(collected).error.has_value());
  closed.await();
  EXPECT_FALSE(upstream.send(collected).error.has_value());
  EXPECT_EQ(upstream.stub.connections(), 2);
  EXPECT_EQ(upstream.stub.requests(), 2);
}

TEST(CurlTransport, keepsTheConnectionThatCameBackLastAndClosesTheOld) {
  Gate both;
  std::atomic<int> waiting = 0;
  Upstream upstream([&](TlsStub::Connection& connection) {
    while (connection.next()) {
      if (++waiting == 2) both.open();
      both.await();
      connection.send(test::jsonAnswer("{}"));
    }
  });
  {
    std::jthread first([&] {
      Collected collected;
      upstream.send(collected);
    });
    std::jthread second([&] {
      Collected collected;
      upstream.send(collected);
    });
  }
  EXPECT_EQ(upstream.transport.idle(), 2u);
  Collected collected;
  upstream.send(collected);
  EXPECT_EQ(upstream.stub.connections(), 2);
  upstream.clock.advance(CurlTransport::kIdleTime);
  upstream.send(collected);
  EXPECT_EQ(upstream.stub.connections(), 3);
  EXPECT_EQ(upstream.transport.idle(), 1u);
}

TEST(CurlTransport, aReceiverThatThrowsDoesNotThrowThroughCurl) {
  Upstream upstream(TlsStub::answering(test::jsonAnswer("{}")));
  struct Throws final : UpstreamReceiver {
    bool head(UpstreamHead) override { return true; }
    bool body(std::string_view, UpstreamPiece) override { throw std::bad_alloc(); }
  } throws;
  EXPECT_THROW(upstream.transport.send(upstream.request(), throws, {}), std::bad_alloc);
  EXPECT_EQ(upstream.transport.idle(), 0u);
}

TEST(CurlTransport, tellsItsFailuresApart) {
  struct Row {
    const char* what;
    TlsStub::Script script;
    ProxyTransportError error;
    bool headSeen;
  };
  const Row rows[] = {
      {"closed without an answer", [](auto& c) { c.next(); }, ProxyTransportError::mayHaveBeenSent, false},
      {"redirect",
       [](auto& c) {
         c.next();
         c.send("HTTP/1.1 307 Elsewhere\r\nLocation: https://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n");
         c.awaitEnd();
       },
       ProxyTransportError::redirected, true},
      {"silent",
       [](auto& c) {
         c.next();
         c.awaitEnd();
       },
       ProxyTransportError::timedOut, false},
      {"stalls within the body",
       [](auto& c) {
         c.next();
         c.send(std::string(test::kStreamHead) + test::chunk("data: 1\n\n"));
         c.awaitEnd();
       },
       ProxyTransportError::timedOut, true},
      {"cut within a chunk",
       [](auto& c) {
         c.next();
         c.send(std::string(test::kStreamHead) + "ff\r\nabc");
       },
       ProxyTransportError::mayHaveBeenSent, true},
  };
  for (const Row& row : rows) {
    Upstream upstream(row.script);
    UpstreamRequest request = upstream.request();
    if (row.error == ProxyTransportError::timedOut) request.timeLimit = std::chrono::seconds(1);
    Collected collected;
    const UpstreamResult result = upstream.transport.send(request, collected, {});
    EXPECT_EQ(result.error, row.error) << row.what;
    EXPECT_TRUE(result.sent) << row.what;
    EXPECT_EQ(collected.answer.status != 0, row.headSeen) << row.what;
    EXPECT_EQ(collected.lasts, 0) << row.what;
  }
  Upstream gone(TlsStub::answering(""));
  UpstreamRequest request = gone.request();
  request.url = "https://127.0.0.1:1/";
  Collected collected;
  EXPECT_EQ(gone.transport.send(request, collected, {}).error, ProxyTransportError::notSent);
  request.url = "http://127.0.0.1:" + std::to_string(gone.stub.port()) + "/";
  EXPECT_EQ(gone.transport.send(request, collected, {}).error, ProxyTransportError::notSent) << "TLS always";
}

TEST(CurlTransport, endsWhenItIsStoppedOrTheClientHangsUp) {
  const TlsStub::Script endless = [](auto& c) {
    c.next();
    c.send(std::string(test::kStreamHead) + test::chunk("data: 1\n\n"));
    c.awaitEnd();
  };
  {
    Upstream upstream(endless);
    std::stop_source stop;
    Collected collected;
    collected.onQuiet = [&] {
      if (!collected.text.empty()) stop.request_stop();
    };
    const UpstreamResult result = upstream.send(collected, {.stop = stop.get_token(), .client = -1});
    EXPECT_EQ(result.error, ProxyTransportError::cancelled);
    EXPECT_FALSE(result.hungUp);
  }
  {
    // The stop comes while the call sleeps.
    Upstream upstream(endless);
    std::stop_source stop;
    Gate waits;
    Collected collected;
    collected.onQuiet = [&] { waits.open(); };
    std::jthread stopper([&] {
      waits.await();
      stop.request_stop();
    });
    EXPECT_EQ(upstream.send(collected, {.stop = stop.get_token(), .client = -1}).error, ProxyTransportError::cancelled);
  }
  {
    Upstream upstream(endless);
    int sockets[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
    base::Descriptor client(sockets[0]), ours(sockets[1]);
    Collected collected;
    // Not even what it still said hides that it went.
    collected.onQuiet = [&, quiet = 0]() mutable {
      if (++quiet == 1) {
        ASSERT_EQ(::send(client.get(), "late", 4, 0), 4);
      } else {
        client.reset();
      }
    };
    const UpstreamResult result = upstream.send(collected, {.stop = {}, .client = ours.get()});
    EXPECT_EQ(result.error, ProxyTransportError::cancelled);
    EXPECT_TRUE(result.hungUp);
  }
  {
    // A client that talks is not one that is gone.
    Upstream upstream(TlsStub::answering(test::jsonAnswer("{}")));
    int sockets[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
    const base::Descriptor client(sockets[0]), ours(sockets[1]);
    ASSERT_EQ(::send(client.get(), "x", 1, 0), 1);
    Collected collected;
    EXPECT_FALSE(upstream.send(collected, {.stop = {}, .client = ours.get()}).error.has_value());
  }
}

TEST(CurlTransport, anAnswerBeforeTheBodyIsReadIsTheAnswer) {
  Upstream upstream([](TlsStub::Connection& connection) {
    connection.nextHead();
    connection.send("HTTP/1.1 413 Too Large\r\nContent-Length: 2\r\nConnection: close\r\n\r\n{}");
    connection.awaitEnd();
  });
  const std::string body(8'000'000, 'x');
  Collected collected;
  EXPECT_FALSE(upstream.send(collected, {}, body).error.has_value());
  EXPECT_EQ(collected.answer.status, 413);
  EXPECT_EQ(collected.text, "{}");
}

TEST(UpstreamChunks, givesTheSameDataHoweverItIsSplit) {
  const std::string raw = "5\r\nhello\r\nA;name=\"v\"\r\n0123456789\r\n0\r\nTrailer: t\r\n\r\n";
  for (std::size_t at = 0; at <= raw.size(); ++at) {
    UpstreamChunks chunks;
    std::string data;
    EXPECT_TRUE(chunks.feed(raw.substr(0, at), data));
    EXPECT_EQ(chunks.ended(), at == raw.size());
    EXPECT_TRUE(chunks.feed(raw.substr(at), data));
    EXPECT_EQ(data, "hello0123456789");
    EXPECT_TRUE(chunks.ended());
    EXPECT_FALSE(chunks.excess());
    EXPECT_TRUE(chunks.feed("H", data));
    EXPECT_TRUE(chunks.excess());
  }
  for (const char* bad :
       {"\r\n", "0x3\r\n", "-1\r\n", "1\nx", "1\r\nxx", "1 \n", "1111111111111111\r\n", "1\r\nx\n", "0\r\n\n"}) {
    UpstreamChunks chunks;
    std::string data;
    EXPECT_FALSE(chunks.feed(bad, data) && chunks.feed("\r\n\r\n\r\n", data)) << bad;
  }
}

TEST(OutboundEnvironment, losesWhatWouldRedirectOrRecord) {
  const char* const cleared[] = {"SSLKEYLOGFILE", "SSL_CERT_FILE", "SSL_CERT_DIR", "OPENSSL_CONF",
                                 "https_proxy",   "HTTP_PROXY",    "all_proxy",    "no_proxy"};
  for (const char* name : cleared) ::setenv(name, "made up", 1);
  ::setenv("SORVANE_PROXY_TEST_KEPT", "kept", 1);
  clearOutboundEnvironment();
  for (const char* name : cleared) EXPECT_EQ(::getenv(name), nullptr) << name;
  EXPECT_STREQ(::getenv("SORVANE_PROXY_TEST_KEPT"), "kept");
  ::unsetenv("SORVANE_PROXY_TEST_KEPT");
}

}  // namespace
}  // namespace sorvane::proxy
