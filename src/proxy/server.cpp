#include "proxy/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>

#include "base/diagnostics.h"
#include "base/open_descriptors.h"
#include "proxy/server_exchange.h"

namespace sorvane::proxy {
namespace {

constexpr int kBacklog = 128;
// How long accepting rests when the system lacks descriptors, memory or a network for the moment.
constexpr std::chrono::milliseconds kAcceptPause{50};

[[noreturn]] void cannotListen() {
  throw ProxyServerError("The local proxy could not listen on this computer. Nothing was shared. Try again.");
}

TcpEnd endOf(const sockaddr_in& address) {
  return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

sockaddr_in addressOf(const TcpEnd& end) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(end.address);
  address.sin_port = htons(end.port);
  return address;
}

template <typename Ask>
std::optional<TcpEnd> endBy(const Ask& ask, int socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (ask(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0 || address.sin_family != AF_INET) return {};
  return endOf(address);
}

base::Descriptor openListener() {
  base::Descriptor listener = base::openSocket(AF_INET, SOCK_STREAM);
  if (!listener) cannotListen();
  ::fcntl(listener.get(), F_SETFL, O_NONBLOCK);
  const sockaddr_in address = addressOf({INADDR_LOOPBACK, 0});
  if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) cannotListen();
  if (::listen(listener.get(), kBacklog) != 0) cannotListen();
  return listener;
}

// The connection, not the listener, is what failed; the next one is asked for at once.
bool wasTheConnections(int error) {
  return error == EINTR || error == EAGAIN || error == EWOULDBLOCK || error == ECONNABORTED;
}

// The listener is none any more. Everything else is a lack that may pass.
bool isFatal(int error) {
  return error == EBADF || error == EINVAL || error == ENOTSOCK || error == EFAULT;
}

}  // namespace

/// What one generation of the server holds: from a start to the stop that follows.
struct LocalProxyServer::Listening {
  base::Descriptor listener;
  base::Pipe wake;
  // The last member: its threads are joined before the descriptors go.
  std::unique_ptr<ServerWorkers> workers;
};

LocalProxyServer::LocalProxyServer(Configuration configuration, Ports ports)
    : configuration_(std::move(configuration)),
      ports_(ports),
      throttle_(static_cast<std::size_t>(configuration_.failedTokenThrottleCount)),
      bodyBudget_(configuration_.globalBodyBudgetBytes) {}

LocalProxyServer::~LocalProxyServer() {
  stop();
}

std::uint16_t LocalProxyServer::start() {
  const base::Lock lifecycle(lifecycle_);
  if (const auto open = port()) return *open;
  // What is left of a generation whose listener broke.
  end();
  if (configuration_.checkPeerUID) checkOwnersAreTold();
  auto fresh = std::make_unique<Listening>();
  fresh->listener = openListener();
  const auto bound = endBy(::getsockname, fresh->listener.get());
  auto wake = base::openPipe();
  if (!bound || !wake) cannotListen();
  fresh->wake = std::move(*wake);
  throttle_.reset();
  running_ = std::move(fresh);
  Listening& listening = *running_;
  const auto most = static_cast<std::size_t>(configuration_.maxConnections + configuration_.maxBusyAnswers + 1);
  publish(bound->port);
  try {
    listening.workers = std::make_unique<ServerWorkers>(
        most, ServerWorkers::Work{[this, &listening] { return next(listening); },
                                  [this](base::Descriptor socket) { serve(std::move(socket)); }});
    listening.workers->start();
  } catch (const std::exception&) {
    publish(std::nullopt);
    end();
    cannotListen();
  }
  return bound->port;
}

void LocalProxyServer::checkOwnersAreTold() {
  // A listener that nobody else knows, and a connection to it that waits in its queue.
  const base::Descriptor listener = openListener();
  const base::Descriptor client = base::openSocket(AF_INET, SOCK_STREAM);
  const auto here = endBy(::getsockname, listener.get());
  if (!here || !client) cannotListen();
  const sockaddr_in address = addressOf(*here);
  if (::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) cannotListen();
  const auto there = endBy(::getsockname, client.get());
  if (there && ports_.owners.ownerOf(*there, *here) == ::geteuid()) return;
  throw ProxyServerError(
      "The local proxy did not start, because this computer does not tell which user a connection comes from. Nothing "
      "was shared. Allow sorvane to ask for it (on Linux: netlink sockets and the kernel module tcp_diag), then try "
      "again.");
}

void LocalProxyServer::stop() {
  const base::Lock lifecycle(lifecycle_);
  publish(std::nullopt);
  end();
}

void LocalProxyServer::end() {
  if (running_ == nullptr) return;
  // Wakes whoever waits for the next connection, now and later: nobody reads it.
  while (::write(running_->wake.write.get(), "", 1) < 0 && errno == EINTR) {
  }
  for (const auto& connection : connections(std::nullopt)) connection->cut();
  running_.reset();
}

void LocalProxyServer::publish(std::optional<std::uint16_t> port) {
  const base::Lock lock(lock_);
  boundPort_ = port;
}

std::optional<std::uint16_t> LocalProxyServer::port() const {
  const base::Lock lock(lock_);
  return boundPort_;
}

void LocalProxyServer::cut(std::string_view lookupId) {
  for (const auto& connection : connections(lookupId)) connection->cut();
}

std::vector<std::shared_ptr<ProxyConnection>> LocalProxyServer::connections(std::optional<std::string_view> lookupId) {
  const base::Lock lock(lock_);
  std::vector<std::shared_ptr<ProxyConnection>> found;
  for (const auto& [id, connection] : connections_) {
    if (!lookupId || connection->belongsTo(*lookupId)) found.push_back(connection);
  }
  return found;
}

base::Descriptor LocalProxyServer::next(const Listening& listening) {
  while (true) {
    std::array<pollfd, 2> entries{{{listening.listener.get(), POLLIN, 0}, {listening.wake.read.get(), POLLIN, 0}}};
    const bool polled = ::poll(entries.data(), entries.size(), -1) >= 0;
    if (polled && entries[1].revents != 0) return {};
    if (polled) {
      if (base::Descriptor socket = base::acceptFrom(listening.listener.get())) return socket;
    }
    if (wasTheConnections(errno)) continue;
    if (isFatal(errno)) {
      publish(std::nullopt);
      base::diagnose("proxy", "the local proxy stopped: its listener failed");
      return {};
    }
    std::this_thread::sleep_for(kAcceptPause);
  }
}

void LocalProxyServer::serve(base::Descriptor socket) {
  bool busy = false;
  std::shared_ptr<ProxyConnection> connection;
  try {
    if (!isWelcome(socket.get())) return;
    connection = admit(std::move(socket), busy);
    if (connection == nullptr) return;
    ProxyExchange exchange(*this, *connection);
    if (busy) {
      exchange.refuseBusy();
    } else {
      exchange.run();
    }
  } catch (...) {
    base::diagnose("proxy", "a connection was closed without an answer");
  }
  if (connection != nullptr) leave(*connection, busy);
}

bool LocalProxyServer::isWelcome(int socket) const {
  if (!configuration_.checkPeerUID && !configuration_.peerCheck) return true;
  const auto client = endBy(::getpeername, socket), here = endBy(::getsockname, socket);
  if (!client || !here) return false;
  ProxyPeer peer{*client, std::nullopt};
  if (configuration_.checkPeerUID) {
    peer.uid = ports_.owners.ownerOf(*client, *here);
    if (peer.uid != ::geteuid()) return false;
  }
  return !configuration_.peerCheck || configuration_.peerCheck(peer);
}

std::shared_ptr<ProxyConnection> LocalProxyServer::admit(base::Descriptor socket, bool& busy) {
  const base::Lock lock(lock_);
  if (!boundPort_) return nullptr;
  const int id = nextConnectionId_++;
  auto connection = std::make_shared<ProxyConnection>(id, std::move(socket));
  connections_.emplace(id, connection);
  // Last, as the others may throw.
  busy = served_ >= configuration_.maxConnections;
  if (!busy) ++served_;
  return connection;
}

void LocalProxyServer::leave(const ProxyConnection& connection, bool busy) {
  const base::Lock lock(lock_);
  if (!busy) --served_;
  connections_.erase(connection.id());
}

}  // namespace sorvane::proxy
