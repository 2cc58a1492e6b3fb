#include "proxy/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <vector>

#include "base/diagnostics.h"
#include "proxy/server_exchange.h"

namespace sorvane::proxy {
namespace {

constexpr int kBacklog = 128;
// How long accepting rests when the system has no descriptor left.
constexpr int kAcceptPauseMilliseconds = 50;

[[noreturn]] void cannotListen() {
  throw ProxyServerError("The local proxy could not listen on this computer. Nothing was shared. Try again.");
}

TcpEnd endOf(const sockaddr_in& address) {
  return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

template <typename Ask>
std::optional<TcpEnd> endBy(const Ask& ask, int socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (ask(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0 || address.sin_family != AF_INET) return {};
  return endOf(address);
}

base::Descriptor openListener() {
  base::Descriptor listener(::socket(AF_INET, SOCK_STREAM, 0));
  if (!listener) cannotListen();
  ::fcntl(listener.get(), F_SETFD, FD_CLOEXEC);
  ::fcntl(listener.get(), F_SETFL, O_NONBLOCK);
#ifdef SO_NOSIGPIPE
  const int on = 1;
  ::setsockopt(listener.get(), SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) cannotListen();
  if (::listen(listener.get(), kBacklog) != 0) cannotListen();
  return listener;
}

}  // namespace

/// What one generation of the server holds: from a start to the stop that follows.
struct LocalProxyServer::Listening {
  base::Descriptor listener, wakeRead, wakeWrite;
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
  auto fresh = std::make_unique<Listening>();
  fresh->listener = openListener();
  const auto bound = endBy(::getsockname, fresh->listener.get());
  std::array<int, 2> wake{};
  if (!bound || ::pipe(wake.data()) != 0) cannotListen();
  fresh->wakeRead.reset(wake[0]);
  fresh->wakeWrite.reset(wake[1]);
  for (const int end : wake) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  throttle_.reset();
  {
    const base::Lock lock(lock_);
    listening_ = true;
    boundPort_ = bound->port;
  }
  running_ = std::move(fresh);
  Listening& listening = *running_;
  const auto most = static_cast<std::size_t>(configuration_.maxConnections + configuration_.maxBusyAnswers + 1);
  listening.workers = std::make_unique<ServerWorkers>(
      most, ServerWorkers::Work{[this, &listening] { return next(listening); },
                                [this](base::Descriptor socket) { serve(std::move(socket)); }});
  try {
    listening.workers->start();
  } catch (const std::exception&) {
    running_.reset();
    const base::Lock lock(lock_);
    listening_ = false;
    boundPort_.reset();
    cannotListen();
  }
  return bound->port;
}

void LocalProxyServer::stop() {
  const base::Lock lifecycle(lifecycle_);
  if (running_ == nullptr) return;
  {
    const base::Lock lock(lock_);
    listening_ = false;
    boundPort_.reset();
  }
  // Wakes whoever waits for the next connection, now and later: nobody reads it.
  while (::write(running_->wakeWrite.get(), "", 1) < 0 && errno == EINTR) {
  }
  for (const auto& connection : connections(std::nullopt)) connection->cut();
  running_.reset();
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

base::Descriptor LocalProxyServer::next(Listening& listening) {
  while (true) {
    std::array<pollfd, 2> entries{{{listening.listener.get(), POLLIN, 0}, {listening.wakeRead.get(), POLLIN, 0}}};
    if (::poll(entries.data(), entries.size(), -1) < 0) {
      if (errno == EINTR) continue;
      return {};
    }
    if (entries[1].revents != 0) return {};
    base::Descriptor socket(::accept(listening.listener.get(), nullptr, nullptr));
    if (socket) return socket;
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      ::poll(&entries[1], 1, kAcceptPauseMilliseconds);
    } else if (errno == EBADF || errno == EINVAL) {
      return {};
    }
  }
}

void LocalProxyServer::serve(base::Descriptor socket) {
  ::fcntl(socket.get(), F_SETFD, FD_CLOEXEC);
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
  if (!listening_) return nullptr;
  busy = served_ >= configuration_.maxConnections;
  if (!busy) ++served_;
  const int id = nextConnectionId_++;
  return connections_.emplace(id, std::make_shared<ProxyConnection>(id, std::move(socket))).first->second;
}

void LocalProxyServer::leave(const ProxyConnection& connection, bool busy) {
  const base::Lock lock(lock_);
  if (!busy) --served_;
  connections_.erase(connection.id());
}

}  // namespace sorvane::proxy
