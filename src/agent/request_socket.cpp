#include "agent/request_socket.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <memory>

#include "base/diagnostics.h"
#include "base/open_descriptors.h"
#include "base/system.h"

namespace sorvane::agent {
namespace {

/// Enough for the deepest request that the decoder accepts; most of it is never touched.
constexpr std::size_t kConnectionStackBytes = 512 * 1024;

}  // namespace

RequestSocket::~RequestSocket() {
  close();
  drain();
}

void RequestSocket::drain() {
  connections_.dropSilent();
  connections_.waitUntilNone();
}

void RequestSocket::listen(base::Descriptor listener, std::string occasion) {
  auto wake = base::openWakePipe();
  // So that a connection that is gone again by the time it is accepted holds nobody up.
  const bool canWait = wake && base::setNonBlocking(listener.get());
  {
    const base::Lock lock(mutex_);
    accepting_ = canWait;
    failed_ = !canWait;
  }
  if (!canWait) return;
  wake_ = *std::move(wake);
  listener_ = std::move(listener);
  thread_ =
      std::thread([this, socket = listener_.get(), occasion = std::move(occasion)] { acceptAll(socket, occasion); });
}

void RequestSocket::close() {
  {
    const base::Lock lock(mutex_);
    accepting_ = false;
  }
  base::wake(wake_);
  if (thread_.joinable()) thread_.join();
  listener_.reset();
}

bool RequestSocket::hasFailed() const {
  const base::Lock lock(mutex_);
  return failed_;
}

void RequestSocket::acceptAll(int listener, const std::string& occasion) {
  for (;;) {
    {
      const base::Lock lock(mutex_);
      if (!accepting_) break;
    }
    // Not every system ends an accept that waits when its socket is shut down.
    std::array<pollfd, 2> waits{pollfd{listener, POLLIN, 0}, pollfd{wake_.read.get(), POLLIN, 0}};
    if (::poll(waits.data(), waits.size(), -1) < 0 || waits[1].revents != 0) continue;
    base::Descriptor socket = base::acceptFrom(listener);
    if (!socket) {
      if (errno == EINTR || errno == ECONNABORTED || errno == EAGAIN) continue;
      // Out of descriptors or memory for the moment: the connections that are being served give theirs back.
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        continue;
      }
      const base::Lock lock(mutex_);
      // The endpoint's watch opens it anew.
      failed_ = accepting_;
      break;
    }
    accepted(std::move(socket));
  }
  base::diagnose(component_, "accept loop exited" + occasion);
}

struct RequestSocket::Start {
  RequestSocket& server;
  base::Descriptor socket;
  Connections::Id id;
  pid_t peer;
};

void* RequestSocket::connectionThread(void* argument) {
  const std::unique_ptr<Start> start(static_cast<Start*>(argument));
  start->server.serve(std::move(start->socket), start->id, start->peer);
  return nullptr;
}

void RequestSocket::accepted(base::Descriptor socket) {
  const auto peer = base::peerCredentials(socket.get());
  // Another user has no business here and gets no answer.
  if (!peer || peer->uid != ::geteuid()) return;
  setTimeouts(socket.get());
  const auto id = connections_.add(socket.get());
  const base::SecretText busy = id ? base::SecretText() : busy_();
  if (!id) {
    ::send(socket.get(), busy.view().data(), busy.size(), base::quietSend() | MSG_DONTWAIT);
    return;
  }
  auto start = std::make_unique<Start>(Start{*this, std::move(socket), *id, peer->pid});
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

void RequestSocket::serve(base::Descriptor socket, Connections::Id id, pid_t peer) {
  try {
    const ReceivedRequest received = receiveRequest(socket.get());
    connections_.heard(id);
    sendAll(socket.get(), answer_(received, {socket.get(), peer}).view());
  } catch (...) {
    // An answer that cannot be made is not sent.
    base::diagnose(component_, "a connection was closed without an answer");
  }
  // A watch that is just waiting on the socket would keep a mere close from reaching the client.
  ::shutdown(socket.get(), SHUT_RDWR);
  // The last use of the server: it may be gone once the place is given back.
  connections_.remove(id);
}

}  // namespace sorvane::agent
