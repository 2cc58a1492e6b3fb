#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <thread>

#include "agent/connection.h"
#include "base/descriptor.h"
#include "base/mutex.h"
#include "base/open_descriptors.h"
#include "base/secret_text.h"

namespace sorvane::agent {

/// Who sent a request. `pid` is 0 when the system does not say; `socket` is open until the answer was sent.
struct RequestPeer {
  int socket = -1;
  pid_t pid = 0;
};

/// RequestSocket serves the connections of a listening socket: one request and one answer each, on a thread of its own.
/// A peer of another user gets no answer. `listen` and `close` are called by one thread at a time; the rest by any.
class RequestSocket {
 public:
  /// The encoded answer to what was read; called from many threads. What it throws closes the connection unanswered.
  using Answer = std::function<base::SecretText(const ReceivedRequest& received, const RequestPeer& peer)>;
  /// `component` names the server on standard error; `busy` encodes the refusal for a connection that finds no place.
  RequestSocket(std::string component, Answer answer, std::function<base::SecretText()> busy)
      : component_(std::move(component)), answer_(std::move(answer)), busy_(std::move(busy)) {}
  ~RequestSocket();
  RequestSocket(const RequestSocket&) = delete;
  RequestSocket& operator=(const RequestSocket&) = delete;

  /// Accepts from now on. `occasion` tells this listener from the others on standard error.
  void listen(base::Descriptor listener, std::string occasion);
  /// Accepts no more. Connections that are open stay so.
  void close();
  /// Waits until no connection is left; those that have sent no request are ended. Not called by a request.
  void drain();
  /// The system failed the listener: nobody accepts on it any more.
  bool hasFailed() const;

 private:
  struct Start;

  void acceptAll(int listener, const std::string& occasion);
  void accepted(base::Descriptor socket);
  static void* connectionThread(void* start);
  void serve(base::Descriptor socket, Connections::Id id, pid_t peer);

  // Constant after construction, or synchronised by themselves.
  const std::string component_;
  const Answer answer_;
  const std::function<base::SecretText()> busy_;
  Connections connections_;

  // Of the thread that listens and closes.
  base::Descriptor listener_;
  base::Pipe wake_;
  std::thread thread_;

  // Guarded. A leaf.
  mutable base::Mutex mutex_;
  bool accepting_ GUARDED_BY(mutex_) = false;
  bool failed_ GUARDED_BY(mutex_) = false;
};

}  // namespace sorvane::agent
