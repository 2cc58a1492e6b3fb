#include "proxy/server_exchange.h"

#include <algorithm>
#include <array>

#include "base/diagnostics.h"
#include "base/ids.h"
#include "proxy/forwarded_headers.h"
#include "proxy/http_text.h"
#include "proxy/server_refusals.h"

namespace sorvane::proxy {
namespace {

constexpr std::size_t kHeadPiece = 16'384, kBodyPiece = 262'144;
// How long a connection that gets no place may take to name its path, which decides the form of the answer.
constexpr double kBusyReadSeconds = 0.2;

bool isJson(std::string_view contentType) {
  const std::size_t parameters = contentType.find(';');
  return sameName(trimmed(contentType.substr(0, parameters)), "application/json");
}

}  // namespace

ProxyExchange::ProxyExchange(LocalProxyServer& server, ProxyConnection& connection)
    : server_(server),
      connection_(connection),
      requestId_("req_" + base::randomHexId()),
      headDeadline_(deadlineIn(server.configuration_.headerReadTimeout)),
      channel_(connection, requestId_, server.configuration_.writeStallTimeout) {}

void ProxyExchange::run() {
  if (!readHead()) return;
  const Refused refused = check();
  if (abandoned_) return;
  if (refused) {
    channel_.refuse(*refused);
  } else {
    forward();
  }
  if (connection_.ended() == ChannelEnd::open) drain();
}

void ProxyExchange::refuseBusy() {
  readFirstLine();
  channel_.setDialect(dialectOf(reader_.target()));
  if (reader_.state() == ProxyHeadReader::State::finished) head_ = reader_.takeHead();
  channel_.refuse(refusal::busy());
  drain();
}

void ProxyExchange::readFirstLine() {
  const Deadline deadline = std::min(headDeadline_, deadlineIn(kBusyReadSeconds));
  std::array<char, kHeadPiece> piece;
  while (reader_.state() == ProxyHeadReader::State::reading && !reader_.hasFirstLine()) {
    std::size_t size = 0;
    if (connection_.receive(piece, size, deadline) != ProxyConnection::Read::bytes) return;
    reader_.feed({piece.data(), size});
  }
}

bool ProxyExchange::readHead() {
  std::array<char, kHeadPiece> piece;
  while (reader_.state() == ProxyHeadReader::State::reading) {
    std::size_t size = 0;
    switch (connection_.receive(piece, size, headDeadline_)) {
      case ProxyConnection::Read::bytes:
        reader_.feed({piece.data(), size});
        break;
      case ProxyConnection::Read::ended:
        return false;
      case ProxyConnection::Read::timedOut:
        return true;
    }
  }
  return true;
}

ProxyExchange::Refused ProxyExchange::check() {
  channel_.setDialect(dialectOf(reader_.target()));
  if (reader_.state() == ProxyHeadReader::State::reading) return refusal::headTimedOut();
  if (reader_.state() == ProxyHeadReader::State::refused) return reader_.refusal();
  head_ = reader_.takeHead();
  constexpr std::array<Check, 12> checks{
      &ProxyExchange::checkHost,     &ProxyExchange::checkBrowser,     &ProxyExchange::checkRoute,
      &ProxyExchange::checkMethod,   &ProxyExchange::checkContentType, &ProxyExchange::checkToken,
      &ProxyExchange::checkProvider, &ProxyExchange::checkExpectation, &ProxyExchange::checkLength,
      &ProxyExchange::reserveBody,   &ProxyExchange::readBody,         &ProxyExchange::checkForwardedHeaders,
  };
  for (const Check next : checks) {
    if (Refused refused = (this->*next)()) return refused;
    if (abandoned_) break;
  }
  return std::nullopt;
}

ProxyExchange::Refused ProxyExchange::checkHost() {
  const std::string* const host = head_.header("host");
  const auto port = server_.port();
  if (host == nullptr || !port) return refusal::misdirected();
  const std::string suffix = ":" + std::to_string(*port);
  if (sameName(*host, "127.0.0.1" + suffix) || sameName(*host, "localhost" + suffix)) return std::nullopt;
  return refusal::misdirected();
}

ProxyExchange::Refused ProxyExchange::checkBrowser() {
  constexpr std::string_view fetch = "sec-fetch-";
  // Node's own fetch sends "sec-fetch-mode: cors" and says who it is. A browser never sends this one alone, and its
  // name begins with "Mozilla/" whatever a page does.
  const std::string* const agent = head_.header("user-agent");
  const bool isProgram = agent != nullptr && !agent->empty() && !agent->starts_with("Mozilla/");
  const bool marked = std::any_of(head_.headers.begin(), head_.headers.end(), [&](const ProxyHeader& header) {
    const std::string_view name = header.name;
    if (isProgram && sameName(name, "sec-fetch-mode") && header.value == "cors") return false;
    return sameName(name, "origin") || sameName(name.substr(0, fetch.size()), fetch);
  });
  return marked ? Refused(refusal::browser()) : std::nullopt;
}

ProxyExchange::Refused ProxyExchange::checkRoute() {
  route_ = routeOf(head_.path);
  return route_ == nullptr ? Refused(refusal::noSuchEndpoint()) : std::nullopt;
}

ProxyExchange::Refused ProxyExchange::checkMethod() {
  channel_.setDialect(route_->dialect);
  return head_.method == "POST" ? std::nullopt : Refused(refusal::methodNotAllowed());
}

ProxyExchange::Refused ProxyExchange::checkContentType() {
  const std::string* const type = head_.header("content-type");
  return type != nullptr && isJson(*type) ? std::nullopt : Refused(refusal::notJson());
}

ProxyExchange::Refused ProxyExchange::presentedToken(std::string_view& token) const {
  const ProxyHeader* credential = nullptr;
  for (const ProxyHeader& header : head_.headers) {
    if (!sameName(header.name, "x-api-key") && !sameName(header.name, "authorization")) continue;
    if (credential != nullptr) return refusal::ambiguousCredentials();
    credential = &header;
  }
  if (credential == nullptr) return refusal::ambiguousCredentials();
  token = credential->value;
  if (sameName(credential->name, "authorization")) {
    constexpr std::string_view scheme = "bearer ";
    const bool bearer = sameName(token.substr(0, scheme.size()), scheme);
    token = bearer ? trimmed(token.substr(scheme.size())) : std::string_view();
  }
  return std::nullopt;
}

ProxyExchange::Refused ProxyExchange::checkToken() {
  std::string_view token;
  if (Refused refused = presentedToken(token)) return refused;
  grant_ = server_.ports_.grants.lookUp(token);
  if (grant_ != nullptr) {
    connection_.authenticated(grant_->lookupId);
    // A grant that ended before the connection bore its name was cut without it.
    if (server_.ports_.grants.lookUp(token) != nullptr) return std::nullopt;
  }
  return refuseToken();
}

ProxyExchange::Refused ProxyExchange::refuseToken() {
  const double delay = server_.configuration_.failedTokenDelay;
  const auto retryAfter = server_.throttle_.note(server_.ports_.clock.instant());
  if (!retryAfter) {
    abandoned_ = !connection_.waitUntil(deadlineIn(delay));
    return refusal::invalidKey();
  }
  const ProxyFailedTokenThrottle::Waiting waiting(server_.throttle_);
  if (waiting.granted()) abandoned_ = !connection_.waitUntil(deadlineIn(delay));
  return refusal::tooManyInvalidKeys(*retryAfter);
}

ProxyExchange::Refused ProxyExchange::checkProvider() {
  return grant_->credentials.contains(route_->provider) ? std::nullopt
                                                        : Refused(refusal::providerNotSetUp(route_->provider));
}

ProxyExchange::Refused ProxyExchange::checkExpectation() {
  const std::string* const expectation = head_.header("expect");
  if (expectation == nullptr || sameName(*expectation, "100-continue")) return std::nullopt;
  return refusal::expectationFailed();
}

ProxyExchange::Refused ProxyExchange::checkLength() {
  if (!head_.contentLength) return refusal::lengthRequired();
  const std::int64_t limit = grant_->limits.maxBodyBytes;
  return *head_.contentLength <= limit ? std::nullopt : Refused(refusal::bodyTooLarge(limit));
}

ProxyExchange::Refused ProxyExchange::reserveBody() {
  auto share = server_.bodyBudget_.reserve(*head_.contentLength);
  if (!share) return refusal::busy();
  share_.emplace(std::move(*share));
  return std::nullopt;
}

ProxyExchange::Refused ProxyExchange::readBody() {
  const auto length = static_cast<std::size_t>(*head_.contentLength);
  if (head_.header("expect") != nullptr && !channel_.sendContinue()) {
    abandoned_ = true;
    return std::nullopt;
  }
  const Deadline deadline = deadlineIn(server_.configuration_.bodyReadTimeout);
  if (reader_.rest().size() > length) return refusal::moreThanTold();
  body_.reserve(length);
  body_ = reader_.rest();
  server_.bodyBytesReadTotal_ += static_cast<std::int64_t>(body_.size());
  while (body_.size() < length) {
    const std::size_t have = body_.size();
    const std::size_t piece = std::min(length - have, kBodyPiece);
    body_.resize(have + piece);
    std::size_t got = 0;
    const auto outcome = connection_.receive({body_.data() + have, piece}, got, deadline);
    body_.resize(have + got);
    bodyBytes_ = body_.size();
    server_.bodyBytesReadTotal_ += static_cast<std::int64_t>(got);
    if (outcome == ProxyConnection::Read::timedOut) return refusal::bodyTimedOut();
    if (outcome == ProxyConnection::Read::ended) {
      abandoned_ = true;
      return std::nullopt;
    }
  }
  return connection_.hasUnread() ? Refused(refusal::moreThanTold()) : std::nullopt;
}

ProxyExchange::Refused ProxyExchange::checkForwardedHeaders() {
  const auto bad = badForwardedHeader(head_);
  return bad ? Refused(refusal::invalidHeader(*bad)) : std::nullopt;
}

void ProxyExchange::forward() {
  try {
    server_.ports_.forwarder.forward({grant_, *route_, head_, std::move(body_), requestId_, channel_});
  } catch (...) {
    base::diagnose("proxy", "a call failed inside the proxy");
  }
  if (channel_.isEmpty() && connection_.ended() == ChannelEnd::open) channel_.refuse(refusal::proxyUnavailable());
}

std::int64_t ProxyExchange::unreadBytes() const {
  const std::int64_t most = server_.configuration_.drainLimitBytes;
  // What follows a head that was refused, or not read, is anybody's guess.
  if (reader_.state() != ProxyHeadReader::State::finished) return most;
  const auto read = static_cast<std::int64_t>(std::max(reader_.rest().size(), bodyBytes_));
  const std::int64_t told = head_.contentLength.value_or(0) - read;
  if (told <= 0 && connection_.hasUnread()) return most;
  return std::clamp<std::int64_t>(told, 0, most);
}

void ProxyExchange::drain() {
  std::int64_t left = unreadBytes();
  if (left == 0) return;
  connection_.endSending();
  const Deadline deadline = deadlineIn(server_.configuration_.drainSeconds);
  std::array<char, kHeadPiece> piece;
  while (left > 0) {
    std::size_t size = 0;
    const auto most = std::min<std::size_t>(piece.size(), static_cast<std::size_t>(left));
    if (connection_.receive({piece.data(), most}, size, deadline) != ProxyConnection::Read::bytes) return;
    left -= static_cast<std::int64_t>(size);
    server_.drainedBytesTotal_ += static_cast<std::int64_t>(size);
  }
}

}  // namespace sorvane::proxy
