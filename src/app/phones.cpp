#include "app/phones.h"

#include <algorithm>
#include <chrono>

#include "app/qr_code.h"
#include "base/date.h"
#include "base/error.h"
#include "base/json_writer.h"
#include "base/unicode.h"

namespace sorvane::app {
namespace {

using Server = phone::ApproverServer;

constexpr char kPairingIsOpen[] =
    "Pairing is open already, so you were not asked again. Nothing was shared. Use the code that is shown, or wait "
    "until its two minutes are over.";
constexpr char kMostArePaired[] =
    "Five phones are paired, which is the most, so you were not asked. Nothing was shared. Take one out with sorvane "
    "phone revoke, then pair again.";
constexpr char kTestIsWaiting[] =
    "A test question is waiting on the phones already. Nothing was sent. Answer that one first, or withdraw it.";
constexpr char kTooManyTests[] =
    "Six test questions were put to the phones within a minute. Nothing was sent. Wait a minute, then try again.";

std::string_view word(Server::PairingState state) {
  switch (state) {
    case Server::PairingState::none:
      return "none";
    case Server::PairingState::open:
      return "open";
    case Server::PairingState::paired:
      return "paired";
    case Server::PairingState::expired:
      return "expired";
    case Server::PairingState::tooManyAttempts:
      return "tooManyAttempts";
    case Server::PairingState::cancelled:
      return "cancelled";
  }
  return "none";
}

std::string_view word(Server::Answer::Is answer) {
  switch (answer) {
    case Server::Answer::Is::yes:
      return "yes";
    case Server::Answer::Is::no:
      return "no";
    case Server::Answer::Is::none:
      return "none";
  }
  return "none";
}

class Refused : public base::Error {
 public:
  using Error::Error;
};

std::string textOf(base::JsonWriter& out) {
  return std::string(out.view());
}

}  // namespace

bool Phones::isAnyPaired() {
  return !server_.phones().empty();
}

void Phones::checkPairing() {
  if (server_.pairing().state == Server::PairingState::open) throw Refused(kPairingIsOpen);
  if (server_.phones().size() >= phone::kMostPhones) throw Refused(kMostArePaired);
}

std::string Phones::beginPairing(Unreadable unreadable) {
  if (unreadable == Unreadable::replace) link_.openReplacing();
  Server::PairingOffer offer = server_.beginPairing();
  base::JsonWriter out;
  out.beginObject().field("code", offer.code).field("link", offer.link).strings("addresses", offer.addresses);
  out.key("port").integer(offer.port).field("notAnnounced", offer.notAnnounced);
  out.field("notReachable", offer.notReachable);
  out.key("seconds").integer(phone::kPairingLife.count()).key("attempts").integer(phone::kPairingAttempts);
  out.strings("qr", qrCode(offer.link)).endObject();
  base::wipe(offer.code);
  base::wipe(offer.link);
  return textOf(out);
}

std::string Phones::pairing() {
  const Server::PairingReport report = server_.pairing();
  base::JsonWriter out;
  out.beginObject().field("state", word(report.state)).key("attemptsLeft").integer(report.attemptsLeft);
  out.key("secondsLeft").integer(report.timeLeft.count());
  if (!report.deviceName.empty()) out.field("name", report.deviceName);
  out.endObject();
  return textOf(out);
}

std::string Phones::list() {
  base::JsonWriter out;
  out.beginObject().key("phones").beginArray();
  for (const Server::Phone& phone : server_.phones()) {
    out.beginObject().field("id", phone.id).field("name", phone.name);
    out.key("hardwarePresenceKey").boolean(phone.hardwarePresenceKey).key("connected").boolean(phone.connected);
    out.field("pairedAt", base::iso8601(phone.pairedAt)).endObject();
  }
  out.endArray().endObject();
  return textOf(out);
}

Phones::Phone Phones::find(const std::string& phone) {
  const auto phones = server_.phones();
  const auto byId = std::find_if(phones.begin(), phones.end(), [&](const auto& paired) { return paired.id == phone; });
  if (byId != phones.end()) return {byId->id, byId->name};
  const auto isNamed = [&](const Server::Phone& paired) { return paired.name == phone; };
  const auto byName = std::find_if(phones.begin(), phones.end(), isNamed);
  if (byName == phones.end()) {
    throw Refused("No phone '" + base::escapedForDisplay(phone) +
                  "' is paired. Nothing was changed. sorvane phone list shows those that are.");
  }
  if (std::find_if(byName + 1, phones.end(), isNamed) != phones.end()) {
    throw Refused("More than one phone is called '" + base::escapedForDisplay(phone) +
                  "'. Nothing was changed. Name it by its id, which sorvane phone list shows.");
  }
  return {byName->id, byName->name};
}

/// A test, for as long as it lasts.
class Phones::Test {
 public:
  explicit Test(Phones& phones) : phones_(phones) {
    const base::Instant now = phones_.clock_.instant();
    const base::Lock lock(phones_.mutex_);
    auto& tests = phones_.tests_;
    std::erase_if(tests, [&](base::Instant at) { return now - at >= agent::kPhoneTestWindow; });
    if (phones_.isTesting_) throw Refused(kTestIsWaiting);
    if (tests.size() >= agent::kMostPhoneTests) throw Refused(kTooManyTests);
    tests.push_back(now);
    phones_.isTesting_ = true;
  }
  ~Test() {
    const base::Lock lock(phones_.mutex_);
    phones_.isTesting_ = false;
  }
  Test(const Test&) = delete;
  Test& operator=(const Test&) = delete;

 private:
  Phones& phones_;
};

std::string Phones::test(const std::string& requestor, const std::stop_token& withdrawn) {
  const Test test(*this);
  phone::ApprovalDetails details;
  details.reason = "This is a test: sorvane asks whether the phone can answer. Yes and no change nothing.";
  details.requestor = requestor;
  const Server::Answer answer = server_.ask(details, withdrawn);
  base::JsonWriter out;
  out.beginObject().field("answer", word(answer.is));
  if (!answer.phone.empty()) out.field("phone", answer.phone);
  out.key("milliseconds").integer(std::chrono::duration_cast<std::chrono::milliseconds>(answer.took).count());
  out.endObject();
  return textOf(out);
}

}  // namespace sorvane::app
