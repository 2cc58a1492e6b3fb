#include "proxy/connection.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "base/open_descriptors.h"

namespace sorvane::proxy {
namespace {

int millisecondsUntil(Deadline deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, 1'000'000));
}

/// False when the deadline passed first.
bool waitFor(int socket, short events, Deadline deadline) {
  while (true) {
    pollfd entry{socket, events, 0};
    const int ready = ::poll(&entry, 1, millisecondsUntil(deadline));
    if (ready > 0) return true;
    if (ready == 0 && std::chrono::steady_clock::now() >= deadline) return false;
    if (ready < 0 && errno != EINTR) return true;  // the call that follows meets the failure
  }
}

bool wouldBlock(int error) {
  return error == EAGAIN || error == EWOULDBLOCK;
}

void dropSent(std::span<iovec>& parts, std::size_t sent) {
  while (!parts.empty() && sent >= parts.front().iov_len) {
    sent -= parts.front().iov_len;
    parts = parts.subspan(1);
  }
  if (parts.empty()) return;
  parts.front().iov_base = static_cast<char*>(parts.front().iov_base) + sent;
  parts.front().iov_len -= sent;
}

}  // namespace

ProxyConnection::ProxyConnection(int id, base::Descriptor socket) : id_(id), socket_(std::move(socket)) {
  ::fcntl(socket_.get(), F_SETFL, O_NONBLOCK);
  const int on = 1;
  ::setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

ProxyConnection::Read ProxyConnection::receive(std::span<char> into, std::size_t& size, Deadline deadline) {
  while (true) {
    const ssize_t got = ::recv(socket_.get(), into.data(), into.size(), 0);
    if (got > 0) {
      size = static_cast<std::size_t>(got);
      return Read::bytes;
    }
    if (got == 0 || (!wouldBlock(errno) && errno != EINTR)) return Read::ended;
    if (!waitFor(socket_.get(), POLLIN, deadline)) return Read::timedOut;
  }
}

bool ProxyConnection::hasUnread() const {
  char byte = 0;
  return ::recv(socket_.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
}

bool ProxyConnection::send(std::span<iovec> parts, double stall) {
  dropSent(parts, 0);
  while (!parts.empty()) {
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(parts.size());
    const ssize_t sent = ::sendmsg(socket_.get(), &message, base::quietSend());
    if (sent >= 0) {
      dropSent(parts, static_cast<std::size_t>(sent));
      continue;
    }
    const bool mayGoOn = errno == EINTR || (wouldBlock(errno) && waitFor(socket_.get(), POLLOUT, deadlineIn(stall)));
    if (!mayGoOn) {
      const base::Lock lock(lock_);
      clientGone_ = true;
      return false;
    }
  }
  return true;
}

bool ProxyConnection::waitUntil(Deadline deadline) {
  base::Lock lock(lock_);
  while (!cutFlag_) {
    if (changed_.wait_until(lock.mutex(), deadline) == std::cv_status::timeout) return !cutFlag_;
  }
  return false;
}

void ProxyConnection::authenticated(std::string lookupId) {
  const base::Lock lock(lock_);
  lookupId_ = std::move(lookupId);
}

void ProxyConnection::endSending() {
  ::shutdown(socket_.get(), SHUT_WR);
}

void ProxyConnection::cut() {
  {
    const base::Lock lock(lock_);
    if (cutFlag_) return;
    cutFlag_ = true;
    // Wakes the connection's thread; the descriptor itself stays until that thread is done with it.
    ::shutdown(socket_.get(), SHUT_RDWR);
    changed_.notify_all();
  }
  call_.request_stop();
}

bool ProxyConnection::belongsTo(std::string_view lookupId) const {
  const base::Lock lock(lock_);
  return lookupId_ == lookupId;
}

ChannelEnd ProxyConnection::ended() const {
  const base::Lock lock(lock_);
  if (cutFlag_) return ChannelEnd::cut;
  return clientGone_ ? ChannelEnd::clientGone : ChannelEnd::open;
}

}  // namespace sorvane::proxy
