#include "proxy/upstream_answer.h"

#include <algorithm>
#include <array>
#include <utility>

#include "proxy/upstream_head.h"

namespace sorvane::proxy {
namespace {

/// What clients read of an answer's head. Everything else stays here: cookies, server names, hints to come back over
/// another protocol.
constexpr std::array<std::string_view, 10> kPassed = {
    "content-type",   "content-encoding", "request-id",     "x-request-id",         "retry-after",
    "retry-after-ms", "x-should-retry",   "openai-version", "openai-processing-ms", "openai-model"};
constexpr std::array<std::string_view, 2> kPassedBeginnings = {"anthropic-ratelimit-", "x-ratelimit-"};

constexpr std::string_view kEventStream = "text/event-stream";
constexpr std::string_view kEventStreamSent = "text/event-stream; charset=utf-8";

bool isPassed(std::string_view name) {
  return std::ranges::find(kPassed, name) != kPassed.end() ||
         std::ranges::any_of(kPassedBeginnings, [&](std::string_view begin) { return name.starts_with(begin); });
}

bool isEventStream(std::string_view contentType) {
  std::string type(contentType.substr(0, contentType.find(';')));
  for (char& c : type) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  while (type.ends_with(' ')) type.pop_back();
  return type == kEventStream;
}

/// Whether a stream whose last bytes are these stands between two events.
bool endsEvent(std::string_view tail) {
  return tail.empty() || tail.ends_with("\n\n") || tail.ends_with("\r\n\r\n") || tail.ends_with("\r\r");
}

std::string eventOf(const ProxyRefusal& refusal, ProxyDialect dialect, std::string_view requestId) {
  const std::string data = "data: " + bodyOf(refusal, dialect, requestId) + "\n\n";
  return dialect == ProxyDialect::anthropic ? "event: error\n" + data : data;
}

}  // namespace

UpstreamAnswer::UpstreamAnswer(const ProxyForwardRequest& request, AnswerMeter& meter, EchoMask& mask,
                               std::function<void()> beforeEnd)
    : request_(request), meter_(meter), mask_(mask), beforeEnd_(std::move(beforeEnd)) {}

bool UpstreamAnswer::head(UpstreamHead head) {
  status_ = head_.status = head.status;
  const std::string* const type = head.header("content-type");
  meter_.head(head.status, type == nullptr ? std::string_view() : *type);
  events_ = type != nullptr && isEventStream(*type);
  for (ProxyHeader& header : head.headers) {
    if (!isPassed(header.name)) continue;
    if (events_ && header.name == "content-type") header.value = kEventStreamSent;
    mask_.maskWhole(header.value);
    head_.headers.push_back(std::move(header));
  }
  // An event may be taken out of a stream; of other answers every byte goes on.
  if (!events_) head_.contentLength = head.contentLength;
  if (isBodiless(head.status)) head_.contentLength = 0;
  return true;
}

bool UpstreamAnswer::begin() {
  if (begun_) return true;
  begun_ = true;
  return request_.client.begin(head_);
}

bool UpstreamAnswer::give(std::string_view bytes) {
  if (bytes.empty()) return true;
  constexpr std::size_t kept = 4;
  tail_.append(bytes.substr(bytes.size() - std::min(bytes.size(), kept)));
  if (tail_.size() > kept) tail_.erase(0, tail_.size() - kept);
  return begin() && request_.client.write(bytes);
}

bool UpstreamAnswer::body(std::string_view bytes, UpstreamPiece piece) {
  const std::string_view shown = meter_.pass(mask_.pass(bytes));
  if (piece == UpstreamPiece::more) return give(shown);
  last_.assign(shown);
  end();
  return finished_ || hasEnough();
}

void UpstreamAnswer::quiet() {
  // Other answers keep their head for the first bytes; whoever reads events wants to know that they will come.
  if (events_ && !begun_ && begin()) static_cast<void>(request_.client.flush());
}

bool UpstreamAnswer::hasEnough() const {
  return events_ && begun_ && !meter_.charge(CallEnd::broken).estimated;
}

void UpstreamAnswer::end() {
  if (ended_) return;
  ended_ = true;
  last_.append(meter_.pass(mask_.rest())).append(meter_.rest());
  beforeEnd_();
  if (!begun_ && !events_) head_.contentLength = last_.size();
  finished_ = begin() && give(last_) && request_.client.finish();
}

void UpstreamAnswer::breakOff(const ProxyRefusal& refusal) {
  if (request_.client.ended() != ChannelEnd::open) return;
  if (!begun_) {
    request_.client.refuse(refusal);
  } else if (events_ && endsEvent(tail_)) {
    static_cast<void>(request_.client.write(eventOf(refusal, request_.route.dialect, request_.requestId)));
  }
}

}  // namespace sorvane::proxy
