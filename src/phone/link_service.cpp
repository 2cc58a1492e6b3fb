#include "phone/link_service.h"

#include <algorithm>

#include "base/diagnostics.h"
#include "crypto/digest.h"
#include "crypto/presence_key.h"
#include "phone/local_addresses.h"
#include "phone/phone_error.h"

namespace sorvane::phone {
namespace {

constexpr char kNotReachable[] =
    "This computer is in no network, so no phone can get here by this link. No phone was paired. Cancel this, connect "
    "the "
    "computer to the phone’s network, then pair again.";

}  // namespace

LinkService::LinkService(const Ports& ports, LinkRecord record)
    : server_(ports.server),
      questions_(ports.questions),
      view_(ports.view),
      record_(std::move(record)),
      links_(server_.clock, ports.wake, *this, server_.sourceOf) {
  if (!record_.phones.empty()) {
    try {
      links_.listen(record_.port);
    } catch (const PhoneError& error) {
      base::diagnose("phone", error.sentence());
    }
  }
  publish();
}

LinkService::~LinkService() {
  if (links_.isListening()) server_.announcer.withdraw();
  for (const auto& link : links_.all()) link->end();
  links_.stopListening();
  const base::Lock lock(view_.mutex);
  view_.phones.clear();
  view_.isListening = false;
  view_.pairing.cancel();
}

void LinkService::begin() {
  if (!links_.isListening()) return;
  announce();
  if (record_.port == links_.port()) return;
  LinkRecord moved = record_.clone();
  moved.port = links_.port();
  try {
    server_.registry.save(encodeLinkRecord(moved));
    record_ = std::move(moved);
  } catch (const base::Error& error) {
    base::diagnose("phone", error.sentence());
  }
}

void LinkService::turn() {
  std::optional<base::Instant> deadline;
  {
    const base::Lock lock(view_.mutex);
    view_.pairing.look();
    if (view_.pairing.isOpen()) deadline = view_.pairing.deadline();
  }
  stopWhenNobodyNeedsIt();
  for (const auto& link : links_.all()) {
    if (link->state() == LinkState::served && !link->hasEnded()) putQuestions(*link);
  }
  links_.turn(deadline);
}

void LinkService::begun(Link& link) {
  Envelope challenge;
  challenge.kind = Kind::challenge;
  challenge.challenge = link.challenge();
  challenge.peerPublicKey = record_.identity.publicKey();
  challenge.macName = server_.macName;
  link.send(challenge, server_.clock.instant());
}

void LinkService::gone(const Link&) {
  changed();
}

void LinkService::frame(Link& link, const std::string& body) {
  const auto envelope = decodeEnvelope(body, Side::phone);
  if (!envelope && link.state() == LinkState::leaving) return;
  if (!envelope) return end(link, Verdict::unreadable);
  switch (stepFor(link.state(), envelope->kind)) {
    case LinkStep::prove:
      return prove(link, *envelope);
    case LinkStep::pair:
      return pair(link, *envelope);
    case LinkStep::judge:
      return judgeAnswer(link, *envelope);
    case LinkStep::judgeOther:
      return judgeOther(link, *envelope);
    case LinkStep::forgetPhone:
      return forgetPhone(link, *envelope);
    case LinkStep::passOver:
      return;
    case LinkStep::refuse:
      return end(link, link.state() == LinkState::challenged ? Verdict::notAuthenticated : Verdict::unreadable);
  }
}

void LinkService::prove(Link& link, const Envelope& hello) {
  const PairedPhone* const phone = record_.find(*hello.peerPublicKey);
  if (phone == nullptr) return refuse(link, Kind::helloAck);
  auto channel = Channel::of(Side::mac, record_.identity, phone->publicKey);
  const auto proof = channel ? channel->open<HelloProof>(*hello.sealed) : std::nullopt;
  // Another link's challenge: a recorded hello.
  if (!proof || proof->challenge != link.challenge() || proof->phonePublicKey != phone->publicKey) {
    return end(link, Verdict::unreadable);
  }
  makeRoom(phone->publicKey);
  serve(link, phone->publicKey, std::move(*channel));
  acknowledge(link, Kind::helloAck, proof->phoneChallenge);
}

void LinkService::pair(Link& link, const Envelope& envelope) {
  if (!isPairing()) return refuse(link, Kind::paired);
  const PairRequest& request = *envelope.pairRequest;
  auto channel = Channel::of(Side::mac, record_.identity, request.phonePublicKey);
  if (!channel) return end(link, Verdict::unreadable);
  const auto confirm = channel->open<PairConfirm>(request.sealedConfirm);
  const bool isWhole = confirm && confirm->phonePublicKey == request.phonePublicKey;
  // A phone whose key verifies nothing could never say yes.
  if (!isWhole || !crypto::isPresenceKey(confirm->presenceKey)) return end(link, Verdict::unreadable);
  bool isRight = false;
  {
    const base::Lock lock(view_.mutex);
    isRight = view_.pairing.check(record_.identity.publicKey(), *confirm, link.challenge());
  }
  if (!isRight || !savePaired(*confirm)) return refuse(link, Kind::paired);
  // What it was before it is no more, and neither are the links of that.
  for (const auto& earlier : links_.all()) {
    if (earlier->isOf(confirm->phonePublicKey)) earlier->end();
  }
  makeRoom(confirm->phonePublicKey);
  serve(link, confirm->phonePublicKey, std::move(*channel));
  acknowledge(link, Kind::paired, crypto::sha256(base::bytesOf(confirm->proof)));
}

bool LinkService::savePaired(const PairConfirm& confirm) {
  LinkRecord grown = record_.clone();
  std::erase_if(grown.phones, [&](const PairedPhone& one) { return one.publicKey == confirm.phonePublicKey; });
  if (grown.phones.size() >= kMostPhones) return false;
  grown.phones.push_back({confirm.phonePublicKey, confirm.presenceKey, confirm.hardwarePresenceKey, confirm.deviceName,
                          server_.clock.now()});
  grown.port = links_.port();
  try {
    // Before the phone hears of it: what it believes, a restart must not take back.
    server_.registry.save(encodeLinkRecord(grown));
  } catch (const base::Error& error) {
    base::diagnose("phone", "a phone could not be paired: " + error.sentence());
    return false;
  }
  {
    const base::Lock lock(view_.mutex);
    view_.pairing.finish(confirm.deviceName);
  }
  take(std::move(grown));
  return true;
}

void LinkService::serve(Link& link, const PublicKey& phone, Channel channel) {
  link.serve(phone, std::move(channel));
  changed();
}

void LinkService::acknowledge(Link& link, Kind kind, const Challenge& phoneChallenge) {
  Envelope answer;
  answer.kind = kind;
  answer.ok = true;
  answer.sealed = link.channel().seal(MacProof{phoneChallenge, link.challenge(), record_.identity.publicKey()});
  link.send(answer, server_.clock.instant());
}

void LinkService::refuse(Link& link, Kind kind) {
  Envelope answer;
  answer.kind = kind;
  answer.ok = false;
  link.send(answer, server_.clock.instant());
  link.leave(server_.clock.instant());
}

void LinkService::makeRoom(const PublicKey& newcomer) {
  const auto linksOf = [this](const PublicKey& phone) {
    return std::count_if(links_.all().begin(), links_.all().end(),
                         [&](const auto& link) { return !link->hasEnded() && link->isOf(phone); });
  };
  std::size_t served = 0;
  for (const auto& phone : record_.phones) served += static_cast<std::size_t>(linksOf(phone.publicKey));
  if (served < kMostLinks) return;
  // There are fewer phones than links, so one phone has two; its older one is most likely dead.
  for (const auto& link : links_.all()) {
    if (link->hasEnded() || link->state() != LinkState::served) continue;
    if (linksOf(link->phone()) + (link->isOf(newcomer) ? 1 : 0) < 2) continue;
    return link->end();
  }
}

void LinkService::forgetPhone(Link& link, const Envelope& envelope) {
  const auto notice = link.channel().open<UnpairNotice>(*envelope.sealed);
  if (!notice || notice->phonePublicKey != link.phone()) return end(link, Verdict::unreadable);
  const PublicKey phone = link.phone();
  link.end();
  try {
    forget(phone);
  } catch (const base::Error& error) {
    base::diagnose("phone", "a phone that unpaired could not be taken out: " + error.sentence());
  }
}

ApproverServer::PairingOffer LinkService::beginPairing() {
  if (isPairing()) {
    throw PhoneError(
        "Pairing is open already. Nothing was shared. Use the code that is shown, or wait until its two minutes are "
        "over.");
  }
  if (record_.phones.size() >= kMostPhones) {
    throw PhoneError(
        "Five phones are paired already, and no more can be. Nothing was shared. Take one out with sorvane phone "
        "revoke, then pair again.");
  }
  if (!links_.isListening()) listen();
  announce();
  auto code = randomPairingCode();
  ApproverServer::PairingOffer offer;
  offer.code = groupedCode(code.view());
  offer.addresses = server_.addresses();
  if (offer.addresses.empty()) {
    offer.addresses.emplace_back(kLoopbackAddress);
    offer.notReachable = kNotReachable;
  }
  offer.port = links_.port();
  offer.notAnnounced = notAnnounced_;
  offer.link = pairingLink({record_.identity.publicKey(), offer.addresses, offer.port}, offer.code);
  {
    const base::Lock lock(view_.mutex);
    view_.pairing.open(std::move(code));
  }
  publish();
  return offer;
}

void LinkService::cancelPairing() {
  {
    const base::Lock lock(view_.mutex);
    view_.pairing.cancel();
  }
  stopWhenNobodyNeedsIt();
}

void LinkService::revoke(std::string_view phone) {
  const PairedPhone* found = nullptr;
  std::size_t named = 0;
  for (const auto& one : record_.phones) {
    const bool isId = shortId(one.publicKey) == phone;
    if (isId || one.deviceName == phone) found = &one;
    if (isId) named = 0;
    if (isId) break;
    if (one.deviceName == phone) ++named;
  }
  if (found == nullptr) {
    throw PhoneError("No phone of this name or id is paired. Nothing was changed. See sorvane phone list.");
  }
  if (named > 1) {
    throw PhoneError(
        "More than one phone has this name. Nothing was changed. Give the id of the one that is meant: see sorvane "
        "phone list.");
  }
  forget(PublicKey(found->publicKey));
}

void LinkService::forget(const PublicKey& phone) {
  LinkRecord smaller = record_.clone();
  std::erase_if(smaller.phones, [&](const PairedPhone& one) { return one.publicKey == phone; });
  server_.registry.save(encodeLinkRecord(smaller));
  take(std::move(smaller));
  const auto now = server_.clock.instant();
  for (const auto& link : links_.all()) {
    if (link->hasEnded() || !link->isOf(phone)) continue;
    Envelope notice;
    notice.kind = Kind::unpair;
    notice.sealed = link->channel().seal(UnpairNotice{phone});
    link->send(notice, now);
    link->leave(now);
  }
  changed();
}

void LinkService::take(LinkRecord record) {
  record_ = std::move(record);
  publish();
}

void LinkService::listen() {
  links_.listen(record_.port);
  publish();
}

void LinkService::announce() {
  notAnnounced_ =
      server_.announcer.announce(server_.macName, links_.port(), {"id=" + shortId(record_.identity.publicKey())});
}

void LinkService::stopWhenNobodyNeedsIt() {
  if (!links_.isListening() || !record_.phones.empty() || isPairing()) return;
  links_.stopListening();
  server_.announcer.withdraw();
  publish();
}

bool LinkService::isPairing() const {
  const base::Lock lock(view_.mutex);
  return view_.pairing.isOpen();
}

void LinkService::publish() {
  std::vector<ApproverServer::Phone> phones;
  std::vector<PublicKey> keys;
  for (const auto& one : record_.phones) {
    const bool connected = std::any_of(links_.all().begin(), links_.all().end(), [&](const auto& link) {
      return !link->hasEnded() && link->isOf(one.publicKey);
    });
    phones.push_back({shortId(one.publicKey), one.deviceName, one.hardwarePresenceKey, connected, one.pairedAt});
    keys.push_back(one.publicKey);
  }
  {
    const base::Lock lock(view_.mutex);
    view_.phones = std::move(phones);
    view_.isListening = links_.isListening();
  }
  questions_.setPhones(links_.isListening() ? keys : std::vector<PublicKey>());
}

void LinkService::changed() {
  publish();
  if (server_.onChange) server_.onChange();
}

}  // namespace sorvane::phone
