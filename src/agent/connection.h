#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stop_token>
#include <string_view>
#include <thread>

#include "agent/protocol.h"
#include "base/mutex.h"
#include "base/open_descriptors.h"
#include "base/secret_text.h"

namespace sorvane::agent {

/// What a client sent. `tooLarge`: more than kMaxRequestBytes, and reading stopped there.
struct ReceivedRequest {
  base::SecretText bytes;
  bool tooLarge = false;
};

/// Sets the receive and send time-outs of a connection.
void setTimeouts(int socket, int seconds = kSocketTimeoutSeconds);

/// Reads to the end of the stream, to a failure or to the receive time-out; the size is checked after each piece.
ReceivedRequest receiveRequest(int socket);

/// Writes all of `text`, or gives up when a write makes no progress within the send time-out.
void sendAll(int socket, std::string_view text);

/// HangupWatch tells a waiting request that its client is gone. One thread watches all of them; it is started with the
/// first and joined by the destructor. Any thread.
class HangupWatch {
 public:
  HangupWatch() = default;
  ~HangupWatch();
  HangupWatch(const HangupWatch&) = delete;
  HangupWatch& operator=(const HangupWatch&) = delete;

  using Id = std::uint64_t;
  /// `socket` must stay open until `remove`; -1 for a request without one. `stop` is told once, from the watching
  /// thread or from `withdrawAll`.
  Id add(int socket, std::stop_source stop);
  void remove(Id id);
  /// The server stops: every waiting request is withdrawn.
  void withdrawAll();

 private:
  struct Entry {
    int socket = -1;
    std::stop_source stop;
  };
  void run();
  void wake() REQUIRES(mutex_);
  void emptied();

  // Guarded. A leaf: no callback and no waiting while it is held.
  base::Mutex mutex_;
  std::map<Id, Entry> entries_ GUARDED_BY(mutex_);
  Id next_ GUARDED_BY(mutex_) = 1;
  bool ending_ GUARDED_BY(mutex_) = false;
  std::optional<base::Pipe> wake_ GUARDED_BY(mutex_);
  std::thread thread_ GUARDED_BY(mutex_);
};

/// Connections keeps the open connections, so that clients that send nothing cannot use up the threads. A connection is
/// silent until its request is complete. Any thread.
class Connections {
 public:
  /// Most connections served at once; each has a thread with a small stack.
  static constexpr std::size_t kMost = 256;

  using Id = std::uint64_t;
  /// Takes a place for an accepted connection. When all are taken, the oldest silent connection is shut down, so that
  /// its thread ends, and the new one gets a place; nullopt when none is silent.
  std::optional<Id> add(int socket);
  /// The request of this connection is complete; it is no longer dropped to make room.
  void heard(Id id);
  /// Gives the place back. Called before the socket is closed.
  void remove(Id id);
  /// Shuts down every connection that is still silent.
  void dropSilent();
  /// Blocks until no connection is left.
  void waitUntilNone();

 private:
  struct Entry {
    int socket = -1;
    bool silent = true;
    bool dropped = false;
  };

  base::Mutex mutex_;
  base::Condition left_;
  // In the order of arrival, which is the order of the ids.
  std::map<Id, Entry> entries_ GUARDED_BY(mutex_);
  Id next_ GUARDED_BY(mutex_) = 1;
  std::size_t dropped_ GUARDED_BY(mutex_) = 0;
};

}  // namespace sorvane::agent
