#include "approver/waiter.h"

#include <poll.h>

#include <algorithm>

#include "base/unicode.h"

namespace sorvane::approver {
namespace {

constexpr std::chrono::milliseconds kBrowseTime{4000};
constexpr std::size_t kMostRemembered = 4;

}  // namespace

bool Finder::find(const std::vector<Place>& known, const std::string& computerId,
                  const std::function<bool(const Place&)>& tryPlace) const {
  if (given_) return tryPlace(*given_);
  if (std::any_of(known.begin(), known.end(), tryPlace)) return true;
  if (browser_ == nullptr) return false;
  const auto isStopped = [this] {
    pollfd watched{signals_.descriptor(), POLLIN, 0};
    return ::poll(&watched, 1, 0) > 0;
  };
  const auto found = browser_->find(computerId, kBrowseTime, isStopped);
  signals_.check();
  return std::any_of(found.begin(), found.end(), [&](const Browser::Found& each) {
    const Place place{each.host, each.port};
    return std::find(known.begin(), known.end(), place) == known.end() && tryPlace(place);
  });
}

Waiter::End Waiter::run() {
  const std::string name = base::escapedForDisplay(pairing_.facts.macName);
  ports_.terminal.show("Looking for " + name + " …\n");
  for (;;) {
    lastEnd_.reset();
    // A copy: a place that answers is put first.
    const auto known = pairing_.facts.places;
    if (finder_.find(known, pairing_.facts.computerId, [this](const Place& place) { return connect(place); })) {
      const auto end = afterwards(lastEnd_ ? *lastEnd_ : talk_->serve());
      if (end) return *end;
    } else {
      sayOnce(name +
              " could not be reached, so no question can come. Trying again until it answers; Control-C ends this.");
    }
    if (ports_.terminal.isEnded()) return End::terminalGone;
    pause();
  }
}

Waiter::End Waiter::run(Talk& open) {
  if (const auto end = afterwards(open.serve())) return *end;
  pause();
  return run();
}

/// True when the place is the computer's, or nobody can answer here any more.
bool Waiter::connect(const Place& place) {
  auto connection = Connection::open(place, kConnectTime, ports_.signals);
  if (!connection) return false;
  talk_.reset();
  link_ = std::make_unique<Link>(Link::Ends{pairing_.keys, pairing_.computer}, std::nullopt, seen_, ports_.clock);
  talk_ = std::make_unique<Talk>(ports_, std::move(*connection), *link_, [this](const std::string& macName) {
    nextPause_ = kFirstPause;
    said_.clear();
    ports_.terminal.show("Connected to " + base::escapedForDisplay(macName) + ".\n");
  });
  const auto end = talk_->open();
  if (!end) {
    remember(place);
    return true;
  }
  if (*end == Talk::End::wrongComputer)
    sayOnce("At " + base::escapedForDisplay(textOf(place)) +
            " another computer answered than the one this device is paired with. Nothing was answered.");
  // Nothing proves who says this: whoever has seen the computer's public key can stand at its address.
  if (*end == Talk::End::refused)
    sayOnce(
        "At " + base::escapedForDisplay(textOf(place)) +
        " it was said that this device is not known there. Nothing proves that your computer said it. If the pairing "
        "was ended there, run sorvane-approver forget here, and pair again; until then this device tries on.");
  if (*end != Talk::End::terminalGone) return false;
  lastEnd_ = end;
  return true;
}

std::optional<Waiter::End> Waiter::afterwards(Talk::End end) {
  switch (end) {
    case Talk::End::unpaired:
      return End::unpaired;
    case Talk::End::terminalGone:
      return End::terminalGone;
    case Talk::End::refused:
    case Talk::End::lost:
      sayOnce("The link ended. Connecting again …");
      break;
    case Talk::End::unreadable:
    case Talk::End::wrongComputer:
      sayOnce(LinkError(LinkError::Case::unreadable).sentence() + " Connecting again …");
      break;
  }
  return std::nullopt;
}

void Waiter::remember(const Place& place) {
  auto& places = pairing_.facts.places;
  if (!places.empty() && places.front() == place) return;
  std::erase(places, place);
  places.insert(places.begin(), place);
  if (places.size() > kMostRemembered) places.resize(kMostRemembered);
  try {
    file_.save(pairing_);
  } catch (const KeyFileError&) {
    // It is found again without.
  }
}

void Waiter::pause() {
  const base::Instant until = ports_.clock.instant() + nextPause_;
  nextPause_ = std::min(nextPause_ * 2, kLongestPause);
  for (base::Instant now = ports_.clock.instant(); now < until; now = ports_.clock.instant()) {
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(until - now);
    if (waitFor(ports_.terminal.descriptor(), POLLIN, static_cast<int>(rest.count()), ports_.signals)) {
      // Nothing is asked now, so nothing typed now is an answer.
      while (ports_.terminal.typedLine()) {
      }
      if (ports_.terminal.isEnded()) return;
    }
  }
}

void Waiter::sayOnce(const std::string& sentence) {
  if (said_ == sentence) return;
  said_ = sentence;
  ports_.terminal.show(sentence + "\n");
}

bool Waiter::unpair() {
  const auto known = pairing_.facts.places;
  const bool isFound =
      finder_.find(known, pairing_.facts.computerId, [this](const Place& place) { return connect(place); });
  if (!isFound || lastEnd_) return false;
  talk_->unpair();
  return true;
}

}  // namespace sorvane::approver
