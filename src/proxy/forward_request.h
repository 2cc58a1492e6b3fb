#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "proxy/grants.h"
#include "proxy/refusal.h"
#include "proxy/request_head.h"
#include "proxy/route.h"

namespace sorvane::proxy {

/// The head of an answer as it goes to the client; "connection", "x-sorvane-request-id" and the framing are the
/// channel's.
struct ProxyAnswerHead {
  int status = 200;
  std::vector<ProxyHeader> headers;
  std::optional<std::uint64_t> contentLength;  ///< absent: framed in chunks, one for each write
};

/// Why a client's connection can take no more.
enum class ChannelEnd { open, cut, clientGone };

/// ProxyClientChannel is the client's end of one call. Used by the call's own thread, except `ended` and `stopped`.
class ProxyClientChannel {
 public:
  virtual ~ProxyClientChannel() = default;
  /// Answers with a refusal; only while nothing was written.
  virtual void refuse(const ProxyRefusal& refusal) = 0;
  /// Keeps the head until the first write, so that both leave in one send; `flush` sends it alone.
  virtual bool begin(const ProxyAnswerHead& head) = 0;
  virtual bool flush() = 0;
  /// Sends the bytes now. Blocks while the client is slow, for a bounded time; false: the client takes no more.
  virtual bool write(std::string_view bytes) = 0;
  /// Ends the answer as complete. Without it the client sees that the answer was broken off.
  virtual bool finish() = 0;
  /// Watched for hang-up while the provider is waited for; owned by the channel.
  virtual int socket() const = 0;
  virtual ChannelEnd ended() const = 0;
  /// Stopped when the grant ended or the server stops.
  virtual std::stop_token stopped() const = 0;
};

/// ProxyForwardRequest is a call that passed every check of the server. References live for the call.
struct ProxyForwardRequest {
  std::shared_ptr<const ProxyGrant> grant;
  const ProxyRoute& route;
  const ProxyRequestHead& head;
  std::string body;
  std::string requestId;
  ProxyClientChannel& client;
};

/// ProxyForwarding carries a call to its provider and the answer back. Many threads at once.
class ProxyForwarding {
 public:
  virtual ~ProxyForwarding() = default;
  /// Blocks until the call is answered, settled and recorded. Never throws.
  virtual void forward(ProxyForwardRequest request) = 0;
};

}  // namespace sorvane::proxy
