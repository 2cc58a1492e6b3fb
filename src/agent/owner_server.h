#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "agent/connection.h"
#include "agent/endpoint.h"
#include "agent/owner_lock.h"
#include "agent/owner_protocol.h"
#include "agent/request_socket.h"
#include "base/files.h"
#include "base/mutex.h"

namespace sorvane::agent {

/// OwnerServer serves the lock of the vault on "owner.sock" of the support folder, from its start to its end, whether
/// the vault is open or not (docs/owner-protocol.md). Each request is handed to the OwnerLock on a thread of its own
/// and withdrawn when its peer goes away. `start` and `stop` may be called by any thread, but not by a request.
///
/// The destructor waits for the requests in flight, so the OwnerLock must still answer then.
class OwnerServer {
 public:
  struct Ports {
    base::Files& files;
    OwnerLock& lock;
  };
  OwnerServer(const std::filesystem::path& supportFolder, Ports ports);
  ~OwnerServer();
  OwnerServer(const OwnerServer&) = delete;
  OwnerServer& operator=(const OwnerServer&) = delete;

  /// Binds the socket (0600). The socket of a process that is gone is replaced; whatever else is found under the name
  /// stays, and nothing is served. A failure is written to standard error. True when it serves.
  bool start();
  /// Removes the socket and withdraws every request that waits.
  void stop();

  /// The single entry of every request.
  OwnerAnswer handle(std::string_view bytes, const LockCaller& caller);

 private:
  std::optional<std::string> open() REQUIRES(lifecycle_);
  base::SecretText answer(const ReceivedRequest& received, const RequestPeer& peer);
  LockOutcome perform(OwnerRequest request, const LockCaller& caller);

  // Constant after construction, or synchronised by themselves.
  const std::filesystem::path path_;
  base::Files& files_;
  OwnerLock& lock_;
  HangupWatch hangups_;
  RequestSocket requests_;

  // Held across starting and stopping; never taken by a request.
  base::Mutex lifecycle_;
  bool isRunning_ GUARDED_BY(lifecycle_) = false;
  SocketIdentity bound_ GUARDED_BY(lifecycle_);

  // Guarded. A leaf.
  base::Mutex mutex_;
  bool isStopped_ GUARDED_BY(mutex_) = true;
};

}  // namespace sorvane::agent
