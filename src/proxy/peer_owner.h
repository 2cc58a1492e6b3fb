#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

namespace sorvane::proxy {

/// One end of a TCP connection over IPv4, in host byte order.
struct TcpEnd {
  std::uint32_t address = 0;
  std::uint16_t port = 0;
};

/// PeerOwners tells which user a connection of this computer comes from. Any thread; does not block.
class PeerOwners {
 public:
  virtual ~PeerOwners() = default;
  /// The user that holds the client's end of exactly this connection. nullopt when the system does not tell: the end is
  /// on another computer, already closed, or held by no process. Such a peer is treated as a stranger.
  virtual std::optional<uid_t> ownerOf(const TcpEnd& client, const TcpEnd& server) = 0;
};

}  // namespace sorvane::proxy
