#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "proxy/server.h"
#include "support/doubles.h"

namespace sorvane::proxy::test_server {

using namespace std::chrono_literals;

inline constexpr std::string_view kToken = "made-up-token-one", kOtherToken = "made-up-token-two";

/// One grant a token, each for Anthropic and OpenAI, until it is taken away.
class StubGrants final : public ProxyGrantStore {
 public:
  StubGrants() {
    add(kToken, "aaaaaaaaaaaaaaaa");
    add(kOtherToken, "bbbbbbbbbbbbbbbb");
  }
  std::shared_ptr<const ProxyGrant> lookUp(std::string_view token) const override {
    const base::Lock lock(mutex_);
    const auto found = grants_.find(token);
    return found == grants_.end() ? nullptr : found->second;
  }
  void add(std::string_view token, std::string lookupId, std::int64_t maxBodyBytes = 33'554'432) {
    auto grant = std::make_shared<ProxyGrant>();
    grant->lookupId = std::move(lookupId);
    grant->limits.maxBodyBytes = maxBodyBytes;
    for (const auto provider : {ProxyProvider::anthropic, ProxyProvider::openai}) {
      grant->credentials[provider].provider = provider;
    }
    const base::Lock lock(mutex_);
    grants_[std::string(token)] = std::move(grant);
  }
  void remove(std::string_view token) {
    const base::Lock lock(mutex_);
    grants_.erase(std::string(token));
  }

 private:
  mutable base::Mutex mutex_;
  std::map<std::string, std::shared_ptr<const ProxyGrant>, std::less<>> grants_ GUARDED_BY(mutex_);
};

/// Answers each call as the test says and remembers the bodies.
class StubForwarder final : public ProxyForwarding {
 public:
  using Answer = std::function<void(ProxyForwardRequest&)>;
  StubForwarder() { answerWith(&ok); }

  void forward(ProxyForwardRequest request) override {
    Answer answer;
    {
      const base::Lock lock(mutex_);
      bodies_.push_back(request.body);
      answer = answer_;
      changed_.notify_all();
    }
    answer(request);
  }
  void answerWith(Answer answer) {
    const base::Lock lock(mutex_);
    answer_ = std::move(answer);
  }
  std::vector<std::string> bodies() const {
    const base::Lock lock(mutex_);
    return bodies_;
  }
  void waitForCalls(std::size_t count) {
    base::Lock lock(mutex_);
    while (bodies_.size() < count) changed_.wait(lock.mutex());
  }
  static void ok(ProxyForwardRequest& request) {
    request.client.begin({200, {{"content-type", "text/plain"}}, 2});
    request.client.write("ok");
    request.client.finish();
  }
  /// Waits until the call is told to end.
  static void hang(ProxyForwardRequest& request) {
    base::Mutex mutex;
    base::Condition never;
    std::unique_lock<base::Mutex> lock(mutex);
    never.wait(lock, request.client.stopped(), [] { return false; });
  }

 private:
  mutable base::Mutex mutex_;
  base::Condition changed_;
  Answer answer_ GUARDED_BY(mutex_);
  std::vector<std::string> bodies_ GUARDED_BY(mutex_);
};

class StubOwners final : public PeerOwners {
 public:
  std::optional<uid_t> ownerOf(const TcpEnd&, const TcpEnd&) override {
    const base::Lock lock(mutex_);
    return uid_;
  }
  void answer(std::optional<uid_t> uid) {
    const base::Lock lock(mutex_);
    uid_ = uid;
  }

 private:
  base::Mutex mutex_;
  std::optional<uid_t> uid_ GUARDED_BY(mutex_) = ::geteuid();
};

/// A client's end of one connection.
class Client {
 public:
  explicit Client(std::uint16_t port) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    ::setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    connected_ = ::connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  bool connected() const { return connected_; }
  int socket() const { return socket_.get(); }
  /// False when the server has closed.
  bool send(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }
  /// Everything up to the end of the connection; `reset` when that came by force.
  std::string readAll() {
    std::string text;
    while (readSome(text)) {
    }
    return text;
  }
  /// Reads until `text` has come, or the end.
  std::string readUntil(std::string_view wanted) {
    std::string text;
    while (text.find(wanted) == std::string::npos && readSome(text)) {
    }
    return text;
  }
  bool wasReset() const { return reset_; }

 private:
  bool readSome(std::string& text) {
    char bytes[4096];
    const ssize_t got = ::recv(socket_.get(), bytes, sizeof bytes, 0);
    reset_ = got < 0;
    if (got > 0) text.append(bytes, static_cast<std::size_t>(got));
    return got > 0;
  }
  base::Descriptor socket_;
  bool connected_ = false;
  bool reset_ = false;
};

inline int statusOf(const std::string& answer) {
  return answer.starts_with("HTTP/1.1 ") ? std::stoi(answer.substr(9, 3)) : 0;
}
/// "" when there is none.
inline std::string headerOf(const std::string& answer, const std::string& name) {
  const auto at = answer.find("\r\n" + name + ": ");
  if (at == std::string::npos || at > answer.find("\r\n\r\n")) return "";
  const auto start = at + name.size() + 4;
  return answer.substr(start, answer.find("\r\n", start) - start);
}
inline std::string bodyIn(const std::string& answer) {
  const auto end = answer.find("\r\n\r\n");
  return end == std::string::npos ? "" : answer.substr(end + 4);
}

inline std::size_t countEntries(const char* folder) {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder)) ++count;
  return count;
}

class ProxyServer : public testing::Test {
 protected:
  LocalProxyServer& start(LocalProxyServer::Configuration configuration = {}) {
    server_ = std::make_unique<LocalProxyServer>(std::move(configuration),
                                                 LocalProxyServer::Ports{grants, forwarder, owners, clock});
    port = server_->start();
    return *server_;
  }
  /// A request that is served, or differs from one in a single point.
  struct Request {
    std::string method = "POST", path = "/anthropic/v1/messages", host = {};
    std::string headers = "x-api-key: " + std::string(kToken) + "\r\ncontent-type: application/json\r\n";
    std::string extra = {};
    std::string body = "{}";
    std::optional<std::size_t> length = {};
  };
  std::string text(const Request& request) const {
    const std::string host = request.host.empty() ? "127.0.0.1:" + std::to_string(port) : request.host;
    return request.method + " " + request.path + " HTTP/1.1\r\nHost: " + host + "\r\n" + request.headers +
           request.extra + "Content-Length: " + std::to_string(request.length.value_or(request.body.size())) +
           "\r\n\r\n" + request.body;
  }
  std::string ask(const std::string& bytes) {
    Client client(port);
    client.send(bytes);
    const std::string answer = client.readAll();
    EXPECT_FALSE(client.wasReset());
    return answer;
  }
  std::string ask(const Request& request) { return ask(text(request)); }

  StubGrants grants;
  StubForwarder forwarder;
  StubOwners owners;
  test::ManualClock clock;
  std::uint16_t port = 0;
  std::unique_ptr<LocalProxyServer> server_;
};

}  // namespace sorvane::proxy::test_server
