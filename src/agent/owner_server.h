#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "agent/connection.h"
#include "agent/endpoint.h"
#include "agent/endpoint_watch.h"
#include "agent/owner_lock.h"
#include "agent/owner_protocol.h"
#include "agent/request_socket.h"
#include "base/files.h"
#include "base/mutex.h"

namespace sorvane::agent {

/// OwnerServer serves the lock of the vault on "owner.sock" of the support folder, from its start to its end, whether
/// the vault is open or not (docs/owner-protocol.md). Each request is handed to the OwnerLock, or to the OwnerRestore,
/// on a thread of its own and withdrawn when its peer goes away. A socket that was removed or replaced is bound anew.
/// `start` and `stop` may be called by any thread, but not by a request.
///
/// The destructor waits for the requests in flight, so both must still answer then.
class OwnerServer {
 public:
  struct Ports {
    base::Files& files;
    OwnerLock& lock;
    OwnerRestore& restore;
  };
  /// `watchEvery`: how often the socket is looked at; zero: never.
  OwnerServer(const std::filesystem::path& supportFolder, Ports ports,
              std::chrono::milliseconds watchEvery = kWatchEvery);
  ~OwnerServer();
  OwnerServer(const OwnerServer&) = delete;
  OwnerServer& operator=(const OwnerServer&) = delete;

  /// Most requests in flight that may wait for the owner, and most that only ask how the lock stands. What remains of
  /// the connections is for `lock`, which so finds a place always.
  static constexpr std::size_t kMostWaiting = 192, kMostReports = 32;
  static_assert(kMostWaiting + kMostReports < Connections::kMost);

  /// Binds the socket (0600). The socket of a process that is gone is replaced; whatever else is found under the name
  /// stays, and nothing is served. A failure is written to standard error. True when it serves.
  bool start();
  /// Removes the socket and withdraws every request that waits.
  void stop();

  /// The single entry of every request.
  OwnerAnswer handle(std::string_view bytes, const LockCaller& caller);

 private:
  class Place;

  std::optional<std::string> open() REQUIRES(lifecycle_);
  std::optional<std::string> checkSocket();
  base::SecretText answer(const ReceivedRequest& received, const RequestPeer& peer);
  LockOutcome perform(OwnerRequest request, const LockCaller& caller);
  LockOutcome restore(OwnerRequest request, const LockCaller& caller);

  // Constant after construction, or synchronised by themselves.
  const std::filesystem::path path_;
  base::Files& files_;
  OwnerLock& lock_;
  OwnerRestore& restore_;
  HangupWatch hangups_;
  RequestSocket requests_;

  // Held across starting and stopping; never taken by a request.
  base::Mutex lifecycle_;
  bool isRunning_ GUARDED_BY(lifecycle_) = false;
  std::optional<SocketIdentity> bound_ GUARDED_BY(lifecycle_);  ///< nullopt: nobody listens

  // Guarded. A leaf.
  base::Mutex mutex_;
  bool isStopped_ GUARDED_BY(mutex_) = true;
  std::size_t waiting_ GUARDED_BY(mutex_) = 0, reports_ GUARDED_BY(mutex_) = 0;

  // The last member: it is stopped and joined before the others go.
  std::optional<EndpointWatch> watch_;
};

}  // namespace sorvane::agent
