#include "phone/link.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "base/ids.h"
#include "base/open_descriptors.h"
#include "phone/approver_server.h"

namespace sorvane::phone {
namespace {

constexpr std::size_t kReadBytes = 16'384;
constexpr std::chrono::seconds kMinute{60};

bool isPassing(int error) {
  return error == EINTR || error == EAGAIN || error == EWOULDBLOCK;
}

}  // namespace

LinkStep stepFor(LinkState state, Kind kind) {
  // Whoever is asked to go may have answered before knowing it.
  if (state == LinkState::leaving) return kind == Kind::approvalResponse ? LinkStep::judge : LinkStep::passOver;
  const bool isFirst = state == LinkState::challenged, isServed = state == LinkState::served;
  switch (kind) {
    case Kind::hello:
      return isFirst ? LinkStep::prove : LinkStep::refuse;
    case Kind::pair:
      return isFirst ? LinkStep::pair : LinkStep::refuse;
    case Kind::approvalResponse:
      return LinkStep::judge;
    case Kind::keyApprovalAnswer:
    case Kind::approverRegisterAnswer:
      return isServed ? LinkStep::judgeOther : LinkStep::refuse;
    case Kind::unpair:
      return isServed ? LinkStep::forgetPhone : LinkStep::refuse;
    case Kind::challenge:
    case Kind::paired:
    case Kind::helloAck:
    case Kind::approvalRequest:
    case Kind::cancel:
    case Kind::keyApproval:
    case Kind::approverRegister:
      return LinkStep::refuse;
  }
  return LinkStep::refuse;
}

Link::Link(base::Descriptor socket, std::string source, base::Instant now)
    : socket_(std::move(socket)), source_(std::move(source)), stateDeadline_(now + kHelloTime) {
  base::fillRandom(challenge_);
}

void Link::serve(const PublicKey& phone, Channel channel) {
  state_ = LinkState::served;
  stateDeadline_.reset();
  phone_ = phone;
  channel_ = std::move(channel);
}

void Link::leave(base::Instant now) {
  state_ = LinkState::leaving;
  stateDeadline_ = now + kLeavingTime;
  if (unsent_.empty()) ::shutdown(socket_.get(), SHUT_WR);
}

void Link::endFor(LinkFault fault) {
  // Who goes already has broken nothing.
  if (state_ != LinkState::leaving) fault_ = fault;
  end();
}

void Link::expire() {
  endFor(reader_.hasBegun() ? LinkFault::frame : !unsent_.empty() ? LinkFault::takesNothing : LinkFault::none);
  drop();
}

void Link::drop() {
  const linger atOnce{1, 0};
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  end();
}

void Link::send(const Envelope& envelope, base::Instant now) {
  const auto frame = writeFrame(encodeEnvelope(envelope));
  // All that is sent was measured before.
  if (!frame || unsent_.size() + frame->size() > kMostUnsent) {
    endFor(LinkFault::takesNothing);
    return drop();
  }
  if (unsent_.empty()) unsentSince_ = now;
  unsent_.append(base::textOf(*frame));
  flush(now);
}

short Link::wanted() const {
  // The last words go first: an other end that has closed its side may still take them.
  const bool reads = state_ != LinkState::leaving || unsent_.empty();
  return static_cast<short>((reads ? POLLIN : 0) | (unsent_.empty() ? 0 : POLLOUT));
}

void Link::read(base::Instant) {
  std::array<std::uint8_t, kReadBytes> piece;
  const ssize_t got = ::recv(socket_.get(), piece.data(), piece.size(), 0);
  // Of a link that goes, only answers of a phone that was served are looked at.
  const bool isHeard = state_ != LinkState::leaving || wasServed();
  if (got > 0 && isHeard) reader_.add(std::span(piece).first(static_cast<std::size_t>(got)));
  if (got == 0 || (got < 0 && !isPassing(errno))) end();
}

std::optional<std::string> Link::take(base::Instant now) {
  if (ended_) return std::nullopt;
  auto body = reader_.next();
  if (!body) {
    if (reader_.isBroken()) endFor(LinkFault::frame);
    if (!reader_.hasBegun())
      frameBegan_.reset();
    else if (!frameBegan_)
      frameBegan_ = now;
    return std::nullopt;
  }
  frameBegan_.reset();
  while (!frames_.empty() && frames_.front() + kMinute <= now) frames_.pop_front();
  if (frames_.size() >= kMostFramesPerMinute) {
    endFor(LinkFault::frame);
    return std::nullopt;
  }
  frames_.push_back(now);
  return body;
}

void Link::flush(base::Instant now) {
  while (!unsent_.empty() && !ended_) {
    const ssize_t sent = ::send(socket_.get(), unsent_.data(), unsent_.size(), base::quietSend());
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && isPassing(errno)) return;
    if (sent < 0) return end();
    unsent_.erase(0, static_cast<std::size_t>(sent));
    unsentSince_ = now;
  }
  if (!unsent_.empty()) return;
  // An idle link holds nothing.
  unsent_ = {};
  unsentSince_.reset();
  if (state_ == LinkState::leaving) ::shutdown(socket_.get(), SHUT_WR);
}

std::optional<base::Instant> Link::deadline() const {
  std::optional<base::Instant> nearest = stateDeadline_;
  const auto consider = [&nearest](const std::optional<base::Instant>& since, std::chrono::seconds time) {
    if (since && (!nearest || *since + time < *nearest)) nearest = *since + time;
  };
  consider(frameBegan_, kFrameTime);
  consider(unsentSince_, kFrameTime);
  return nearest;
}

}  // namespace sorvane::phone
