#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "base/secret_text.h"
#include "proxy/limits.h"
#include "proxy/request_head.h"

namespace sorvane::proxy {

/// How a call failed on the provider's side of the proxy.
enum class ProxyTransportError {
  notSent,          ///< no byte of the request left: the provider could not be reached
  mayHaveBeenSent,  ///< the connection failed afterwards, or what came is no answer that can be passed on
  redirected,       ///< the provider answered with a redirect; none is followed
  timedOut,         ///< the call's time is over
  cancelled,        ///< stopped from this side
};

/// One request to a provider. What it refers to lives for the call.
struct UpstreamRequest {
  ProxyProvider provider = ProxyProvider::anthropic;  ///< whose pool of connections is used
  std::string url;
  std::vector<ProxyHeader> headers;
  /// Sent as one more header, name and value in one; wiped where it is copied to.
  base::SecretText credential;
  std::optional<std::string_view> body;  ///< absent: a GET
  std::chrono::seconds timeLimit{600};   ///< of the whole call
};

/// The head of a provider's answer. Names are in lower case.
struct UpstreamHead {
  int status = 0;
  std::vector<ProxyHeader> headers;
  std::optional<std::uint64_t> contentLength;
  bool chunked = false;

  const std::string* header(std::string_view lowerName) const;
};

enum class UpstreamPiece { more, last };

/// UpstreamReceiver takes an answer as it arrives, on the thread of the call. Where it returns false the call ends as
/// cancelled.
class UpstreamReceiver {
 public:
  virtual ~UpstreamReceiver() = default;
  /// Once, for the final head; informational ones are dropped.
  virtual bool head(UpstreamHead head) = 0;
  /// The next bytes, without transfer framing; `last` when it is known that none follow. An answer that ends where its
  /// connection is closed has no last piece.
  virtual bool body(std::string_view bytes, UpstreamPiece piece) = 0;
  /// Everything that had arrived was given; the provider is waited for now.
  virtual void quiet() {}
  /// Whether the client has all that matters, though the answer has not ended. A client that hangs up then is no reason
  /// to break off at once.
  virtual bool hasEnough() const { return false; }
};

/// What ends a call from this side.
struct UpstreamWatch {
  std::stop_token stop;
  /// A socket whose other end may hang up; what comes from there is read and dropped. -1: none.
  int client = -1;
};

struct UpstreamResult {
  std::optional<ProxyTransportError> error;
  bool sent = false;       ///< a byte of the request may have left
  bool hungUp = false;     ///< cancelled because the client hung up
  bool badAnswer = false;  ///< mayHaveBeenSent because the answer was malformed
};

/// ProxyTransport carries requests to providers. Any thread; blocks until the answer has ended. Never sends a request
/// again of which a byte may have left.
class ProxyTransport {
 public:
  virtual ~ProxyTransport() = default;
  virtual UpstreamResult send(const UpstreamRequest& request, UpstreamReceiver& receiver,
                              const UpstreamWatch& watch) = 0;
};

/// Takes the variables out of this process's environment that would redirect, weaken or record its own connections:
/// proxies, certificate stores, key logs and the TLS library's configuration. Called first in main, before any library
/// has read them and while there is one thread.
void clearOutboundEnvironment();

}  // namespace sorvane::proxy
