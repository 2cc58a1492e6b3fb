#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <memory>

#include "agent/server.h"
#include "base/diagnostics.h"
#include "base/system.h"

namespace sorvane::agent {
namespace {

/// Enough for the deepest request that the decoder accepts; most of it is never touched.
constexpr std::size_t kConnectionStackBytes = 512 * 1024;

constexpr std::string_view kBusy =
    "sorvane is handling as many requests as it can. Nothing was shared. Try again in a moment.";

}  // namespace

void AgentServer::acceptLoop(std::int64_t generation, int listener) {
  for (;;) {
    {
      const base::Lock lock(mutex_);
      if (!running_ || generation_ != generation) break;
    }
    base::Descriptor socket(::accept(listener, nullptr, nullptr));
    if (!socket) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      // Out of descriptors or memory for the moment: the connections that are being served give theirs back.
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        continue;
      }
      const base::Lock lock(mutex_);
      // The endpoint's watch opens it anew.
      acceptFailed_ = running_ && generation_ == generation;
      break;
    }
    accepted(std::move(socket));
  }
  base::diagnose("agent", "accept loop exited (gen " + std::to_string(generation) + ")");
}

struct AgentServer::ConnectionStart {
  AgentServer& server;
  base::Descriptor socket;
  Connections::Id id;
  pid_t peer;
};

void* AgentServer::connectionThread(void* argument) {
  const std::unique_ptr<ConnectionStart> start(static_cast<ConnectionStart*>(argument));
  start->server.serve(std::move(start->socket), start->id, start->peer);
  return nullptr;
}

void AgentServer::accepted(base::Descriptor socket) {
  ::fcntl(socket.get(), F_SETFD, FD_CLOEXEC);
  const auto peer = base::peerCredentials(socket.get());
  // Another user has no business here and gets no answer.
  if (!peer || peer->uid != ::geteuid()) return;
  setTimeouts(socket.get());
  const auto id = connections_.add(socket.get());
  const base::SecretText busy = id ? base::SecretText() : encodeResponse(AgentResponse::refused(std::string(kBusy)));
  if (!id) {
    ::send(socket.get(), busy.view().data(), busy.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return;
  }
  auto start = std::make_unique<ConnectionStart>(ConnectionStart{*this, std::move(socket), *id, peer->pid});
  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  ::pthread_attr_setstacksize(&attributes, kConnectionStackBytes);
  ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  if (::pthread_create(&thread, &attributes, &connectionThread, start.get()) == 0) {
    static_cast<void>(start.release());
  } else {
    connections_.remove(*id);
  }
  ::pthread_attr_destroy(&attributes);
}

void AgentServer::serve(base::Descriptor socket, Connections::Id id, pid_t peer) {
  try {
    const ReceivedRequest received = receiveRequest(socket.get());
    connections_.heard(id);
    const AgentResponse response = received.tooLarge ? AgentResponse::refused("request too large")
                                                     : handle(received.bytes.view(), SocketCaller{socket.get(), peer});
    sendAll(socket.get(), encodeResponse(response).view());
  } catch (...) {
    // An answer that cannot be made is not sent.
    base::diagnose("agent", "a connection was closed without an answer");
  }
  // A watch that is just waiting on the socket would keep a mere close from reaching the client.
  ::shutdown(socket.get(), SHUT_RDWR);
  // The last use of the server: it may be gone once the place is given back.
  connections_.remove(id);
}

void AgentServer::watchEndpoint(const std::stop_token& stop) {
  base::Mutex mutex;
  base::Condition never;
  std::string lastFailure;
  while (!stop.stop_requested()) {
    {
      std::unique_lock<base::Mutex> waiting(mutex);
      never.wait_for(waiting, stop, settings_.watchEvery, [] { return false; });
    }
    if (!stop.stop_requested()) checkEndpoint(lastFailure);
  }
}

bool AgentServer::acceptFailed() const {
  const base::Lock lock(mutex_);
  return acceptFailed_;
}

void AgentServer::checkEndpoint(std::string& lastFailure) {
  const base::Lock lifecycle(lifecycle_);
  if (!wanted_) return;
  // While the folder itself is away there is nothing to publish into; it is looked for again the next time.
  struct stat status {};
  if (::lstat(settings_.supportFolder.c_str(), &status) != 0) return;
  std::optional<std::string> failure;
  if (!isRunning()) {
    failure = open();
  } else if (acceptFailed() || socketAt(socketPath_) != publishedSocket_) {
    base::diagnose("agent", "the socket file was replaced or removed, or failed; listening again");
    close();
    failure = open();
  } else if (!published_.isIntact() && !published_.publish(info())) {
    failure = "could not publish endpoint";
  }
  if (failure && *failure != lastFailure) base::diagnose("agent", *failure);
  lastFailure = failure.value_or("");
}

}  // namespace sorvane::agent
