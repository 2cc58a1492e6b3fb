#include <algorithm>
#include <cctype>

#include "proxy/answer_meter_usage.h"
#include "proxy/call_plan.h"
#include "proxy/call_plan_terms.h"

namespace sorvane::proxy {
namespace {

/// The event that tells usage is far smaller; a longer one is not held back.
constexpr std::size_t kMostHeldBytes = 64 * 1024;
constexpr std::string_view kEventStream = "text/event-stream";
/// The data of the event behind the last of OpenAI's form, with the space and the line end around it.
constexpr std::string_view kDone = "[DONE]";
constexpr std::size_t kMostLead = kDone.size() + 2;

bool isEventStream(std::string_view contentType) {
  return contentType.size() >= kEventStream.size() &&
         std::equal(kEventStream.begin(), kEventStream.end(), contentType.begin(), [](char expected, char c) {
           return expected == static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
         });
}

/// Finds the data of the events of a stream, in pieces (HTML Standard, section 9.2.6): lines end with CR, LF or both,
/// and an empty line ends an event.
class EventLines {
 public:
  /// Takes bytes up to the end of the next event, or all; `data` gets the pieces of its data. Says how many were taken
  /// and whether the event ended with them.
  struct Taken {
    std::size_t bytes = 0;
    bool ended = false;
  };
  template <typename Data>
  Taken take(std::string_view bytes, const Data& data) {
    std::size_t at = 0;
    while (at < bytes.size()) {
      const char c = bytes[at];
      if (afterReturn_) {
        // The LF of a CR LF belongs to the line that the CR ended.
        afterReturn_ = false;
        if (c == '\n') {
          ++at;
          if (endsWithFeed_) return end(at);
          continue;
        }
        if (endsWithFeed_) return end(at);
      }
      if (c == '\n' || c == '\r') {
        ++at;
        const bool empty = lineBytes_ == 0;
        if (isData_) data(std::string_view("\n"));
        lineBytes_ = 0;
        isData_ = false;
        afterReturn_ = c == '\r';
        if (empty && !afterReturn_) return end(at);
        endsWithFeed_ = empty && afterReturn_;
      } else {
        at += line(bytes.substr(at), data);
      }
    }
    return {at, false};
  }

 private:
  static constexpr std::string_view kField = "data:";

  Taken end(std::size_t at) {
    endsWithFeed_ = false;
    return {at, true};
  }
  /// Bytes of one line, from where it was left; never empty, without its end.
  template <typename Data>
  std::size_t line(std::string_view bytes, const Data& data) {
    const std::size_t feed = std::min(bytes.find('\n'), bytes.size());
    const std::size_t length = std::min(bytes.substr(0, feed).find('\r'), feed);
    std::size_t at = 0;
    for (; at < length && lineBytes_ < kField.size(); ++at, ++lineBytes_) {
      if (lineBytes_ == 0) isField_ = true;
      isField_ = isField_ && bytes[at] == kField[lineBytes_];
      isData_ = isField_ && lineBytes_ + 1 == kField.size();
    }
    if (isData_ && at < length) data(bytes.substr(at, length - at));
    lineBytes_ += length - at;
    return length;
  }

  std::size_t lineBytes_ = 0;
  bool isField_ = false;  ///< the line so far is the beginning of "data:"
  bool isData_ = false;   ///< the line is data
  bool afterReturn_ = false;
  bool endsWithFeed_ = false;  ///< an empty line ended with CR; its LF may still come
};

}  // namespace

struct AnswerMeter::State {
  explicit State(const CallPlan& plan) : terms(plan.terms), report(*terms), scan(report.paths(), report) {}

  /// Ends an event: its report counts, and the answer says whether the event is to be taken out.
  bool endEvent() {
    const bool whole = scan.complete();
    const bool drop = whole && mayDrop && report.isUsageAlone();
    whole ? report.commit() : report.discard();
    if (lead.find(kDone) <= 1) report.ended();
    lead.clear();
    scan.restart();
    eventBytes = 0;
    mayDrop = terms->dropsUsageEvent;
    return drop;
  }
  EventLines::Taken takeEvent(std::string_view bytes) {
    const auto taken = lines.take(bytes, [this](std::string_view data) {
      lead.append(data.substr(0, kMostLead - lead.size()));
      scan.feed(data);
    });
    eventBytes += taken.bytes;
    mayDrop = mayDrop && !report.hasChoice() && eventBytes <= kMostHeldBytes;
    return taken;
  }
  std::string_view passEvents(std::string_view bytes);

  // Constant after construction.
  const std::shared_ptr<const CallPlan::Terms> terms;
  // The call's own thread's.
  AnswerReport report;
  AnswerScan scan;
  EventLines lines;
  int status = 0;
  bool events = false;
  bool mayDrop = false;  ///< the event that is being read may be the one to take out
  std::size_t eventBytes = 0;
  std::string lead;  ///< how the event's data begins
  std::string held;  ///< the beginning of an event that may have to be taken out
  std::string out;
};

/// Passes a stream on event by event, holding back only what may be the added event.
std::string_view AnswerMeter::State::passEvents(std::string_view bytes) {
  out.clear();
  bool copied = false;
  std::size_t passed = 0, eventBegin = 0, at = 0;
  const auto copyUpTo = [&](std::size_t end) {
    out.append(bytes.substr(passed, end - passed));
    passed = end;
  };
  while (at < bytes.size()) {
    const auto taken = takeEvent(bytes.substr(at));
    at += taken.bytes;
    const bool keepHolding = !taken.ended && mayDrop;
    if (keepHolding) break;
    const bool drop = taken.ended && endEvent();
    if (!held.empty()) {
      if (!drop) out.append(held);
      copied = true;
      held.clear();
    }
    if (drop) {
      copyUpTo(eventBegin);
      copied = true;
      passed = at;
    }
    eventBegin = at;
  }
  if (eventBegin < at) {
    held.append(bytes.substr(eventBegin));
    if (!copied) return bytes.substr(0, eventBegin);
    copyUpTo(eventBegin);
    return out;
  }
  if (!copied) return bytes;
  copyUpTo(bytes.size());
  return out;
}

AnswerMeter::AnswerMeter(const CallPlan& plan) : state_(std::make_unique<State>(plan)) {}
AnswerMeter::~AnswerMeter() = default;

void AnswerMeter::head(int status, std::string_view contentType) {
  state_->status = status;
  state_->events = isEventStream(contentType);
  if (state_->events) state_->report.expectEvents();
  state_->mayDrop = state_->events && state_->terms->dropsUsageEvent;
}

std::string_view AnswerMeter::pass(std::string_view bytes) {
  State& state = *state_;
  if (!state.events) {
    state.scan.feed(bytes);
    return bytes;
  }
  return state.passEvents(bytes);
}

std::string_view AnswerMeter::rest() {
  State& state = *state_;
  state.out.clear();
  if (state.events) {
    // A last event without its empty line is read as one by clients, so it counts.
    if (!state.endEvent()) state.out.swap(state.held);
    state.held.clear();
  } else if (state.scan.complete()) {
    state.report.commit();
    state.scan.restart();
  }
  return state.out;
}

CallCharge AnswerMeter::charge(CallEnd end) const {
  return state_->report.charge(state_->status, end);
}

}  // namespace sorvane::proxy
