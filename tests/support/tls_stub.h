#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/descriptor.h"
#include "base/mutex.h"

namespace sorvane::test {

/// A request as the stub read it. Names of headers are in lower case.
struct StubRequest {
  std::string line;  ///< without its end
  std::multimap<std::string, std::string> headers;
  std::string body;
};

/// TlsStub is an HTTPS server on 127.0.0.1 that stands for a provider: a certificate authority made when it starts, a
/// thread for each connection and a script that says what the connection does.
class TlsStub {
 public:
  /// One connection, for its script.
  class Connection {
   public:
    /// The next request whole; nullopt when the client closed.
    std::optional<StubRequest> next();
    /// Up to the blank line; the body stays unread.
    std::optional<StubRequest> nextHead();
    /// What is at hand; empty when the client closed.
    std::string read();
    /// False when the client is gone.
    bool send(std::string_view bytes);
    /// Ends without telling the client so in TLS.
    void drop();
    /// Ends in a reset.
    void reset();
    /// Blocks until the client closes.
    void awaitEnd();
    int number() const { return number_; }
    bool http2() const;

   private:
    friend class TlsStub;
    TlsStub* stub_ = nullptr;
    int number_ = 0;  ///< from 1
    base::Descriptor socket_;
    SSL* tls_ = nullptr;
    std::string buffer_;
  };
  using Script = std::function<void(Connection&)>;
  enum class Protocol { http1, http2 };

  explicit TlsStub(Script script, Protocol protocol = Protocol::http1);
  ~TlsStub();
  TlsStub(const TlsStub&) = delete;
  TlsStub& operator=(const TlsStub&) = delete;

  std::uint16_t port() const { return port_; }
  std::string origin() const { return "https://127.0.0.1:" + std::to_string(port_); }
  const std::string& authorityPem() const { return authorityPem_; }
  int connections() const { return connections_; }
  /// Heads that were read.
  int requests() const { return requests_; }

  /// A script that gives every request the same answer and keeps the connection.
  static Script answering(std::string answer);

 private:
  struct FreeContext {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  };
  void accept();
  void serve(int number, base::Descriptor socket);

  const Script script_;
  std::unique_ptr<SSL_CTX, FreeContext> context_;
  std::string authorityPem_;
  base::Descriptor listener_;
  std::uint16_t port_ = 0;
  std::atomic<int> connections_ = 0, requests_ = 0;
  base::Mutex mutex_;
  std::map<int, int> sockets_ GUARDED_BY(mutex_);  ///< open ones by number
  std::list<std::jthread> threads_ GUARDED_BY(mutex_);
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::jthread acceptor_;
};

/// "HTTP/1.1 200 OK" with a type and a length.
std::string jsonAnswer(std::string_view body, std::string_view extraHeaders = {}, int status = 200);
/// The same head in chunks, one for each piece, the last one included.
std::string streamAnswer(const std::vector<std::string>& pieces);
std::string chunk(std::string_view bytes);
inline constexpr std::string_view kStreamHead =
    "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nTransfer-Encoding: chunked\r\n\r\n";

}  // namespace sorvane::test
