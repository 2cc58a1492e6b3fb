#include "proxy/connection_channel.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "proxy/http_text.h"

namespace sorvane::proxy {
namespace {

constexpr std::string_view kLineEnd = "\r\n", kLastChunk = "0\r\n\r\n";

// Headers that are the channel's own.
constexpr std::array<std::string_view, 5> kOwnHeaders{"connection", "content-length", "transfer-encoding", "keep-alive",
                                                      "x-sorvane-request-id"};

bool mayPass(const ProxyHeader& header) {
  const bool own = std::any_of(kOwnHeaders.begin(), kOwnHeaders.end(),
                               [&](std::string_view name) { return sameName(name, header.name); });
  return !own && isToken(header.name) && isFieldValue(header.value);
}

void addHeader(std::string& head, std::string_view name, std::string_view value) {
  head.append(name).append(": ").append(value).append(kLineEnd);
}

iovec part(std::string_view text) {
  return {const_cast<char*>(text.data()), text.size()};
}

}  // namespace

std::string ConnectionChannel::statusLine(int status) const {
  std::string head = "HTTP/1.1 " + std::to_string(status) + " ";
  head.append(reasonPhrase(status)).append(kLineEnd);
  addHeader(head, "connection", "close");
  addHeader(head, "x-sorvane-request-id", requestId_);
  return head;
}

bool ConnectionChannel::send(std::string_view first, std::string_view second, std::string_view third) {
  std::array<iovec, 4> parts{part(head_), part(first), part(second), part(third)};
  const bool sent = connection_.send(parts, stall_);
  head_.clear();
  return sent;
}

bool ConnectionChannel::sendContinue() {
  return send("HTTP/1.1 100 Continue\r\n\r\n", {}, {});
}

void ConnectionChannel::refuse(const ProxyRefusal& refusal) {
  if (state_ != State::empty) return;
  state_ = State::whole;
  const std::string body = bodyOf(refusal, dialect_, requestId_);
  head_ = statusLine(refusal.status);
  addHeader(head_, "content-type", "application/json");
  addHeader(head_, "content-length", std::to_string(body.size()));
  if (refusal.retryAfterSeconds) addHeader(head_, "retry-after", std::to_string(*refusal.retryAfterSeconds));
  if (refusal.status == 401) addHeader(head_, "www-authenticate", "Bearer");
  if (refusal.status == 405) addHeader(head_, "allow", "POST");
  head_.append(kLineEnd);
  send(body, {}, {});
}

bool ConnectionChannel::begin(const ProxyAnswerHead& head) {
  if (state_ != State::empty) return false;
  const bool plausible = head.status >= 200 && head.status <= 599;
  const int status = plausible ? head.status : 502;
  state_ = State::held;
  head_ = statusLine(status);
  for (const ProxyHeader& header : head.headers) {
    if (mayPass(header)) addHeader(head_, header.name, header.value);
  }
  if (status == 204 || status == 304) {  // RFC 9110 6.4.1: these have no body
    framing_ = Framing::none;
  } else if (head.contentLength) {
    framing_ = Framing::length;
    left_ = *head.contentLength;
    addHeader(head_, "content-length", std::to_string(left_));
  } else {
    framing_ = Framing::chunks;
    addHeader(head_, "transfer-encoding", "chunked");
  }
  head_.append(kLineEnd);
  return ended() == ChannelEnd::open;
}

bool ConnectionChannel::flush() {
  if (state_ == State::held) {
    state_ = State::going;
    return send({}, {}, {});
  }
  return state_ != State::empty && ended() == ChannelEnd::open;
}

bool ConnectionChannel::write(std::string_view bytes) {
  if (bytes.empty()) return flush();
  if (state_ != State::held && state_ != State::going) return false;
  state_ = State::going;
  switch (framing_) {
    case Framing::chunks: {
      std::array<char, 24> size{};
      const int length = std::snprintf(size.data(), size.size(), "%zx\r\n", bytes.size());
      return send({size.data(), static_cast<std::size_t>(length)}, bytes, kLineEnd);
    }
    case Framing::length:
      // More than was told would be read as another answer.
      if (bytes.size() > left_) return false;
      left_ -= bytes.size();
      return send(bytes, {}, {});
    case Framing::none:
      return false;
  }
  return false;
}

bool ConnectionChannel::finish() {
  if (state_ != State::held && state_ != State::going) return false;
  if (framing_ == Framing::length && left_ > 0) return false;
  state_ = State::whole;
  const std::string_view last = framing_ == Framing::chunks ? kLastChunk : std::string_view();
  if (head_.empty() && last.empty()) return true;
  return send(last, {}, {});
}

}  // namespace sorvane::proxy
