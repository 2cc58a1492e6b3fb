#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "proxy/connection.h"
#include "proxy/forward_request.h"

namespace sorvane::proxy {

/// ConnectionChannel writes the one answer of a connection. Its body is framed by Content-Length where the length is
/// told, else in chunks, so that an answer that breaks off is seen as such.
///
///   empty --refuse----------------------------------------> whole
///   empty --begin--> held --first write or flush--> going --finish--> whole
///   held --finish--> whole
class ConnectionChannel final : public ProxyClientChannel {
 public:
  /// `stall` is how many seconds a client may take to read what was written.
  ConnectionChannel(ProxyConnection& connection, std::string requestId, double stall)
      : connection_(connection), requestId_(std::move(requestId)), stall_(stall) {}

  /// The form of refusals from now on.
  void setDialect(ProxyDialect dialect) { dialect_ = dialect; }
  /// Whether nothing was answered yet.
  bool isEmpty() const { return state_ == State::empty; }
  /// Tells the client that its body may come (RFC 9110 15.2.1).
  bool sendContinue();

  void refuse(const ProxyRefusal& refusal) override;
  bool begin(const ProxyAnswerHead& head) override;
  bool flush() override;
  bool write(std::string_view bytes) override;
  bool finish() override;
  int socket() const override { return connection_.socket(); }
  ChannelEnd ended() const override { return connection_.ended(); }
  std::stop_token stopped() const override { return connection_.stopped(); }

 private:
  enum class State { empty, held, going, whole };
  enum class Framing { none, length, chunks };

  std::string statusLine(int status) const;
  bool send(std::string_view first, std::string_view second, std::string_view third);

  // Constant after construction.
  ProxyConnection& connection_;
  const std::string requestId_;
  const double stall_;
  // For the connection's thread.
  ProxyDialect dialect_ = ProxyDialect::openai;
  State state_ = State::empty;
  Framing framing_ = Framing::none;
  std::uint64_t left_ = 0;  ///< body bytes that were told and are still to come
  std::string head_;        ///< held back
};

}  // namespace sorvane::proxy
