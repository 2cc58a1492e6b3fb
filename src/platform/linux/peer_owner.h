#pragma once

#include <vector>

#include "base/descriptor.h"
#include "base/mutex.h"
#include "proxy/peer_owner.h"

namespace sorvane::platform {

/// LinuxPeerOwners asks the kernel's socket tables (sock_diag over netlink) for the client's socket of a connection.
/// The answer is there when the question was sent, so nothing waits. Netlink sockets are kept for the next question.
class LinuxPeerOwners final : public proxy::PeerOwners {
 public:
  std::optional<uid_t> ownerOf(const proxy::TcpEnd& client, const proxy::TcpEnd& server) override;

 private:
  base::Descriptor takeSocket();
  void keep(base::Descriptor socket);

  // Guarded. A leaf: no socket is used while it is held.
  base::Mutex mutex_;
  std::vector<base::Descriptor> idle_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::platform
