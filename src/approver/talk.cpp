#include "approver/talk.h"

#include <poll.h>

#include <algorithm>
#include <array>

#include "base/unicode.h"

namespace sorvane::approver {
namespace {

constexpr std::chrono::seconds kFarewell{2};

Questions::Screen screenOf(Terminal& terminal) {
  return {[&terminal](std::string_view text) { terminal.show(text); }, [&terminal] { terminal.discardTyped(); },
          [&terminal] { return terminal.width(); }};
}

int pollTime(const std::optional<base::Instant>& deadline, base::Instant now) {
  if (!deadline) return -1;
  const auto rest = std::chrono::ceil<std::chrono::milliseconds>(*deadline - now).count();
  return static_cast<int>(std::clamp<std::int64_t>(rest, 0, 3'600'000));
}

const char* sentenceOf(Link::PassedOver::Why why) {
  switch (why) {
    case Link::PassedOver::Why::expired:
      return "A request came whose time was over, so it is not shown and nothing was answered. If this goes on, set "
             "the clocks of both computers.";
    case Link::PassedOver::Why::answeredBefore:
      return "A request came a second time, so it is not shown again and nothing more was answered.";
    case Link::PassedOver::Why::answerSentAgain:
      return "The answer that you gave before the link ended was sent once more, in case it had not arrived.";
    case Link::PassedOver::Why::tooMany:
      return "More requests came than are kept here, so one is not shown and nothing was answered to it.";
  }
  return "";
}

}  // namespace

Talk::Talk(const Ports& ports, Connection connection, Link& link, OnOpen onOpen)
    : ports_(ports),
      connection_(std::move(connection)),
      link_(link),
      onOpen_(std::move(onOpen)),
      questions_(screenOf(ports.terminal), ports.clock),
      silentUntil_(ports.clock.instant() + kPatience) {}

std::optional<Talk::End> Talk::run(Until until) try {
  while (until == Until::end || !link_.isOpen()) {
    if (const auto end = step()) {
      questions_.withdrawAll();
      return end;
    }
  }
  return std::nullopt;
} catch (const LinkError& error) {
  questions_.withdrawAll();
  return error.kind() == LinkError::Case::wrongComputer ? End::wrongComputer : End::unreadable;
}

std::optional<Talk::End> Talk::step() {
  wait();
  // Before what has come: a line belongs to the question that was shown when it was typed.
  takeTyped();
  if (ports_.terminal.isEnded()) return End::terminalGone;
  if (const auto end = takeReceived()) return end;
  questions_.expire();
  if (!connection_.send(link_.takeOutput())) return End::lost;
  if (silentUntil_ && ports_.clock.instant() >= *silentUntil_) return End::lost;
  return std::nullopt;
}

void Talk::wait() {
  std::array<pollfd, 3> watched{
      pollfd{ports_.terminal.descriptor(), POLLIN, 0},
      pollfd{connection_.descriptor(), static_cast<short>(connection_.isSending() ? POLLIN | POLLOUT : POLLIN), 0},
      pollfd{ports_.signals.descriptor(), POLLIN, 0}};
  ::poll(watched.data(), watched.size(), pollTime(deadline(), ports_.clock.instant()));
  ports_.signals.check();
}

std::optional<base::Instant> Talk::deadline() const {
  const auto expiry = questions_.nextExpiry();
  if (!expiry || !silentUntil_) return expiry ? expiry : silentUntil_;
  return std::min(*expiry, *silentUntil_);
}

void Talk::takeTyped() {
  while (const auto line = ports_.terminal.typedLine()) {
    const auto answer = questions_.take(*line);
    if (!answer) continue;
    const bool isSent = link_.answer(answer->id, answer->isYes ? Link::Answer::yes : Link::Answer::no);
    ports_.terminal.show(isSent ? (answer->isYes ? "Your yes is on its way.\n" : "Your no is on its way.\n")
                                : "Nobody waits for this answer any more, so nothing was answered.\n");
    questions_.showNext();
  }
}

std::optional<Talk::End> Talk::takeReceived() {
  const auto bytes = connection_.receive();
  if (!bytes) return End::lost;
  if (bytes->empty()) return std::nullopt;
  const bool wasInFrame = link_.isInFrame();
  const auto events = link_.receive(*bytes);
  for (const Link::Event& event : events)
    if (const auto end = handle(event)) return end;
  const bool isSilenceBad = !link_.isOpen() || link_.isInFrame();
  if (!isSilenceBad)
    silentUntil_.reset();
  else if (!wasInFrame || !events.empty())
    silentUntil_ = ports_.clock.instant() + kPatience;
  return std::nullopt;
}

std::optional<Talk::End> Talk::handle(const Link::Event& event) {
  if (const auto* const connected = std::get_if<Link::Connected>(&event)) {
    onOpen_(connected->macName);
  } else if (const auto* const asked = std::get_if<Link::Asked>(&event)) {
    questions_.ask(asked->question);
  } else if (const auto* const withdrawn = std::get_if<Link::Withdrawn>(&event)) {
    questions_.withdraw(withdrawn->id);
  } else if (const auto* const passed = std::get_if<Link::PassedOver>(&event)) {
    ports_.terminal.show("\n" + std::string(sentenceOf(passed->why)) + "\n");
  } else {
    return std::holds_alternative<Link::Refused>(event) ? End::refused : End::unpaired;
  }
  return std::nullopt;
}

void Talk::unpair() {
  link_.unpair();
  if (!connection_.send(link_.takeOutput())) return;
  const base::Instant until = ports_.clock.instant() + kFarewell;
  while (connection_.isSending() && ports_.clock.instant() < until) {
    waitFor(connection_.descriptor(), POLLOUT, pollTime(until, ports_.clock.instant()), ports_.signals);
    if (!connection_.send("")) return;
  }
  // Until the computer has closed its side: what is closed with bytes unread may take the notice with it.
  while (ports_.clock.instant() < until) {
    if (!waitFor(connection_.descriptor(), POLLIN, pollTime(until, ports_.clock.instant()), ports_.signals)) break;
    if (!connection_.receive()) break;
  }
}

}  // namespace sorvane::approver
