#pragma once

#include <cstddef>
#include <string_view>

#include "proxy/transport.h"

namespace sorvane::proxy {

/// The version of HTTP that was agreed on the connection.
enum class UpstreamProtocol { http1, http2 };

/// UpstreamHeadReader reads the head of an answer line by line and takes only what has one meaning: RFC 9112 without
/// folded lines, bare carriage returns, lists of lengths or a length beside a transfer coding. One for each answer.
class UpstreamHeadReader {
 public:
  static constexpr std::size_t kMostBytes = 65'536, kMostFields = 256;
  static constexpr int kMostInterim = 16;  ///< informational heads before the final one

  enum class State { reading, complete, refused };

  explicit UpstreamHeadReader(UpstreamProtocol protocol = UpstreamProtocol::http1) : protocol_(protocol) {}
  /// Takes one line with its end; lines after `complete` (trailers) are dropped.
  State line(std::string_view line);
  State state() const { return state_; }
  /// The head, once complete.
  UpstreamHead& head() { return head_; }

 private:
  State endOfHead();
  bool statusLine(std::string_view line);
  bool field(std::string_view line);
  bool framing(const ProxyHeader& field);

  UpstreamProtocol protocol_;
  State state_ = State::reading;
  bool begun_ = false;  ///< the status line was read
  int interim_ = 0;
  std::size_t bytes_ = 0;
  UpstreamHead head_;
};

/// Whether an answer with this status has no body, whatever its head says (RFC 9110 section 6.4.1).
constexpr bool isBodiless(int status) {
  return status == 204 || status == 304;
}
/// Whether a status sends the client elsewhere.
constexpr bool isRedirect(int status) {
  return status == 300 || status == 301 || status == 302 || status == 303 || status == 305 || status == 307 ||
         status == 308;
}

}  // namespace sorvane::proxy
