#pragma once

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>

#include "base/descriptor.h"
#include "base/mutex.h"
#include "proxy/forward_request.h"

namespace sorvane::proxy {

/// Deadlines of a connection go by the time that the computer runs: they bound how long a thread is held.
using Deadline = std::chrono::steady_clock::time_point;
inline Deadline deadlineIn(double seconds) {
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
}

/// ProxyConnection is one accepted socket. Its own thread reads and writes; any thread may cut it, which makes
/// a read, a write or a wait that runs return at once.
class ProxyConnection {
 public:
  /// Makes the socket non-blocking and lets small writes leave at once.
  ProxyConnection(int id, base::Descriptor socket);

  int id() const { return id_; }
  int socket() const { return socket_.get(); }

  // For the connection's own thread.

  enum class Read { bytes, ended, timedOut };
  /// Waits until bytes are there and reads what fits; `size` of them when `bytes`.
  Read receive(std::span<char> into, std::size_t& size, Deadline deadline);
  /// Whether bytes have come that nobody has read.
  bool hasUnread() const;
  /// Writes all parts, in order. False when the client takes no more or makes no progress for `stall` seconds. The
  /// parts are changed.
  bool send(std::span<iovec> parts, double stall);
  /// Waits for the whole time unless the connection is cut; false then.
  bool waitUntil(Deadline deadline);
  /// The grant that the request presented; from now on `cut` finds this connection.
  void authenticated(std::string lookupId);
  /// No more answer bytes follow.
  void endSending();

  // For any thread.

  /// The connection's grant ended, or the server stops.
  void cut();
  bool belongsTo(std::string_view lookupId) const;
  ChannelEnd ended() const;
  /// Tells the call in progress, when there is one, that it is to end.
  std::stop_token stopped() const { return call_.get_token(); }

 private:
  // Constant after construction.
  const int id_;
  const base::Descriptor socket_;
  // Own synchronisation.
  std::stop_source call_;
  base::Condition changed_;
  // Guarded. A leaf: no I/O but the shutdown of the socket, no callback.
  mutable base::Mutex lock_;
  bool cutFlag_ GUARDED_BY(lock_) = false;
  bool clientGone_ GUARDED_BY(lock_) = false;
  std::optional<std::string> lookupId_ GUARDED_BY(lock_);
};

}  // namespace sorvane::proxy
