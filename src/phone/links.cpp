#include "phone/links.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <vector>

#include "base/diagnostics.h"
#include "phone/approver_server.h"
#include "phone/phone_error.h"

namespace sorvane::phone {
namespace {

constexpr int kBacklog = 64;
/// As many are taken before the links get their turn.
constexpr int kAcceptsATurn = 64;
constexpr std::chrono::milliseconds kAcceptPause{500};
/// How long is waited at most before the clock is looked at again: poll does not count the time that the computer
/// sleeps.
constexpr std::chrono::milliseconds kLookAgain{1000};

/// Listens on `port`, 0 for any; no descriptor when that cannot be had.
base::Descriptor listenOn(int family, std::uint16_t port) {
  base::Descriptor listener = base::openSocket(family, SOCK_STREAM);
  if (!listener) return {};
  const int on = 1, off = 0;
  ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in6 six{};
  sockaddr_in four{};
  six.sin6_family = AF_INET6;
  six.sin6_port = four.sin_port = htons(port);
  four.sin_family = AF_INET;
  // One socket takes both families.
  if (family == AF_INET6) ::setsockopt(listener.get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
  const bool isBound = family == AF_INET6
                           ? ::bind(listener.get(), reinterpret_cast<const sockaddr*>(&six), sizeof six) == 0
                           : ::bind(listener.get(), reinterpret_cast<const sockaddr*>(&four), sizeof four) == 0;
  if (!isBound || ::listen(listener.get(), kBacklog) != 0) return {};
  ::fcntl(listener.get(), F_SETFL, O_NONBLOCK);
  return listener;
}

std::uint16_t portOf(int listener) {
  sockaddr_storage bound{};
  socklen_t size = sizeof bound;
  if (::getsockname(listener, reinterpret_cast<sockaddr*>(&bound), &size) != 0) return 0;
  // Both families keep the port at the same place.
  return ntohs(reinterpret_cast<const sockaddr_in*>(&bound)->sin_port);
}

int pollTime(const std::optional<base::Instant>& deadline, base::Instant now) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - now);
  return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), kLookAgain).count());
}

}  // namespace

void Links::listen(std::uint16_t port) {
  for (const std::uint16_t wanted : {port, std::uint16_t{0}}) {
    for (const int family : {AF_INET6, AF_INET}) {
      listener_ = listenOn(family, wanted);
      port_ = listener_ ? portOf(listener_.get()) : std::uint16_t{0};
      if (port_ != 0) return;
    }
  }
  listener_.reset();
  throw PhoneError("This computer could not listen for a phone. Nothing was shared. Try again.");
}

void Links::stopListening() {
  listener_.reset();
  port_ = 0;
  for (const auto& link : links_) {
    if (link->state() == LinkState::challenged) link->end();
  }
}

std::optional<base::Instant> Links::nearest(std::optional<base::Instant> deadline) const {
  const auto consider = [&deadline](const std::optional<base::Instant>& other) {
    if (other && (!deadline || *other < *deadline)) deadline = other;
  };
  for (const auto& link : links_) consider(link->deadline());
  consider(restsUntil_);
  return deadline;
}

void Links::turn(const std::optional<base::Instant>& deadline) {
  sweep();
  std::vector<pollfd> watched{{wake_, POLLIN, 0}};
  const bool listens = isListening() && (!restsUntil_ || clock_.instant() >= *restsUntil_);
  if (listens) restsUntil_.reset();
  // A negative descriptor is passed over.
  watched.push_back({listens ? listener_.get() : -1, POLLIN, 0});
  std::vector<Link*> links;
  for (const auto& link : links_) {
    links.push_back(link.get());
    watched.push_back({link->socket(), link->wanted(), 0});
  }
  const int ready =
      ::poll(watched.data(), static_cast<nfds_t>(watched.size()), pollTime(nearest(deadline), clock_.instant()));
  if (ready > 0) {
    std::array<char, 256> woken;
    if (watched[0].revents != 0) [[maybe_unused]]
      const auto got = ::read(wake_, woken.data(), woken.size());
    for (std::size_t i = 0; i < links.size(); ++i) serveLink(*links[i], watched[i + 2].revents);
    // Last: what is accepted gets its first turn when there is something to read.
    if (watched[1].revents != 0) serveListener();
  }
  const auto now = clock_.instant();
  for (const auto& link : links_) {
    const auto due = link->deadline();
    if (due && now >= *due && !link->hasEnded()) link->expire();
  }
  sweep();
}

void Links::serveLink(Link& link, short happened) {
  if (happened == 0 || link.hasEnded()) return;
  try {
    const auto now = clock_.instant();
    if ((happened & POLLOUT) != 0) link.flush(now);
    if ((happened & (POLLIN | POLLHUP | POLLERR)) != 0) link.read(now);
    while (const auto body = link.take(now)) handler_.frame(link, *body);
  } catch (const std::exception& error) {
    // Memory or a primitive failed; the others go on.
    base::diagnose("phone", error.what());
    link.end();
  }
}

void Links::serveListener() {
  for (int i = 0; i < kAcceptsATurn; ++i) {
    base::Descriptor socket = base::acceptFrom(listener_.get());
    if (socket) {
      accept(std::move(socket));
      continue;
    }
    const int error = errno;
    if (error == EINTR || error == ECONNABORTED) continue;
    // Descriptors or memory are short; a listener that stays readable must not make the thread spin.
    if (error != EAGAIN && error != EWOULDBLOCK) restsUntil_ = clock_.instant() + kAcceptPause;
    return;
  }
}

std::string Links::sourceOf(int socket) const {
  sockaddr_storage peer{};
  socklen_t size = sizeof peer;
  if (::getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) != 0) return {};
  return sourceOf_(reinterpret_cast<const sockaddr&>(peer));
}

void Links::accept(base::Descriptor socket) {
  std::string source = sourceOf(socket.get());
  std::size_t fresh = 0, ofSource = 0;
  for (const auto& link : links_) {
    if (link->wasServed() || link->hasEnded()) continue;
    ++fresh;
    if (link->source() == source) ++ofSource;
  }
  // Closed without a word: there is nothing that a stranger should be told.
  if (fresh >= kMostNewLinks || ofSource >= kMostNewLinksOfSource || source.empty()) return;
  const int on = 1;
  ::fcntl(socket.get(), F_SETFL, O_NONBLOCK);
  ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  // A phone that vanished without a word is gone within a minute: while it seems connected, questions wait for it.
  base::noticeVanishedPeer(socket.get());
  links_.push_back(std::make_unique<Link>(std::move(socket), std::move(source), clock_.instant()));
  handler_.begun(*links_.back());
}

void Links::sweep() {
  All gone;
  for (auto at = links_.begin(); at != links_.end();) {
    const auto next = std::next(at);
    if ((*at)->hasEnded()) gone.splice(gone.end(), links_, at);
    at = next;
  }
  for (const auto& link : gone) {
    if (link->fault() != LinkFault::none) handler_.broke(*link);
    if (link->wasServed()) handler_.gone(*link);
  }
}

}  // namespace sorvane::phone
