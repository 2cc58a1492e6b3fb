#pragma once

#include "proxy/peer_owner.h"

namespace sorvane::platform {

/// LibprocPeerOwners looks for the client's end of a connection among the sockets of this user's processes. The system
/// shows no other user's: whoever has none of these is a stranger, and is not named.
class LibprocPeerOwners final : public proxy::PeerOwners {
 public:
  std::optional<uid_t> ownerOf(const proxy::TcpEnd& client, const proxy::TcpEnd& server) override;
};

}  // namespace sorvane::platform
