#include "approver/connection.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <memory>

#include "base/open_descriptors.h"

namespace sorvane::approver {
namespace {

struct FreeAddresses {
  void operator()(addrinfo* list) const noexcept { ::freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

Addresses addressesOf(const Place& place) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* list = nullptr;
  if (::getaddrinfo(place.host.c_str(), std::to_string(place.port).c_str(), &hints, &list) != 0) return nullptr;
  return Addresses(list);
}

}  // namespace

Connection::Connection(base::Descriptor socket) : socket_(std::move(socket)) {}

std::optional<Connection> Connection::open(const Place& place, std::chrono::milliseconds limit,
                                           const StopSignals& signals) {
  const Addresses addresses = addressesOf(place);
  signals.check();
  for (const addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next) {
    base::Descriptor socket = base::openSocket(address->ai_family, SOCK_STREAM);
    if (!socket) continue;
    ::fcntl(socket.get(), F_SETFL, O_NONBLOCK);
    if (::connect(socket.get(), address->ai_addr, address->ai_addrlen) != 0) {
      if (errno != EINPROGRESS && errno != EINTR) continue;
      if (!waitFor(socket.get(), POLLOUT, static_cast<int>(limit.count()), signals)) continue;
      int error = 0;
      socklen_t size = sizeof error;
      if (::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0) continue;
    }
    const int on = 1;
    ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    // An answer that goes nowhere is given again on the next link while its request lives.
    base::noticeVanishedPeer(socket.get());
    return Connection(std::move(socket));
  }
  return std::nullopt;
}

std::optional<base::Bytes> Connection::receive() {
  std::array<std::uint8_t, 16'384> piece;
  const ssize_t got = ::recv(socket_.get(), piece.data(), piece.size(), 0);
  if (got > 0) return base::Bytes(piece.begin(), piece.begin() + got);
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return base::Bytes();
  return std::nullopt;
}

bool Connection::send(std::string_view bytes) {
  unsent_.append(bytes);
  while (!unsent_.empty()) {
    const ssize_t sent = ::send(socket_.get(), unsent_.data(), unsent_.size(), 0);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
    unsent_.erase(0, static_cast<std::size_t>(sent));
  }
  return true;
}

}  // namespace sorvane::approver
