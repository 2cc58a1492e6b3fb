#include "phone/link_service.h"

#include <algorithm>

#include "base/diagnostics.h"
#include "crypto/digest.h"
#include "crypto/presence_key.h"
#include "phone/local_addresses.h"
#include "phone/phone_error.h"

namespace sorvane::phone {

LinkService::LinkService(const Ports& ports, LinkRecord record)
    : server_(ports.server),
      questions_(ports.questions),
      view_(ports.view),
      record_(std::move(record)),
      links_(server_.clock, ports.wake, *this) {
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
  if (!confirm || confirm->phonePublicKey != request.phonePublicKey || !crypto::isPresenceKey(confirm->presenceKey)) {
    return end(link, Verdict::unreadable);
  }
  bool isRight = false;
  {
    const base::Lock lock(view_.mutex);
    isRight = view_.pairing.check(record_.identity.publicKey(), *confirm, link.challenge());
  }
  if (!isRight || !savePaired(*confirm)) return refuse(link, Kind::paired);
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

void LinkService::judgeAnswer(Link& link, const Envelope& envelope) {
  const bool isServed = link.state() == LinkState::served;
  const auto answer = isServed ? link.channel().open<ApprovalResponse>(*envelope.sealed) : std::nullopt;
  const auto request = answer ? questions_.find(answer->id) : nullptr;
  const PairedPhone* const phone = isServed ? record_.find(link.phone()) : nullptr;
  Verdict verdict = judge({isServed, phone, answer ? &*answer : nullptr, request.get(), server_.clock.now()});
  if (verdict == Verdict::accepted) {
    using Is = ApproverServer::Answer::Is;
    const ApproverServer::Answer given{answer->approved ? Is::yes : Is::no, phone->deviceName, {}};
    // Another phone may have answered since.
    if (!questions_.settle(answer->id, given)) verdict = Verdict::unknownRequest;
  }
  // It knows that it has answered.
  if (verdict == Verdict::accepted) link.put().erase(answer->id);
  end(link, verdict);
}

void LinkService::judgeOther(Link& link, const Envelope& envelope) {
  const bool isReadable = envelope.kind == Kind::keyApprovalAnswer
                              ? link.channel().open<KeyApprovalAnswer>(*envelope.sealed).has_value()
                              : link.channel().open<ApproverRegisterAnswer>(*envelope.sealed).has_value();
  end(link, isReadable ? Verdict::unknownRequest : Verdict::unreadable);
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

void LinkService::end(Link& link, Verdict verdict) {
  if (endsLink(verdict)) {
    // Strangers write no lines here.
    if (link.state() == LinkState::served) {
      base::diagnose("phone", "a link was ended: " + std::string(nameOf(verdict)));
    }
    link.end();
  }
  if (server_.onVerdict) server_.onVerdict(verdict);
}

void LinkService::putQuestions(Link& link) {
  const auto now = server_.clock.instant();
  const auto waiting = questions_.waitingFor(link.phone());
  const auto waits = [&](const std::string& id) {
    return std::any_of(waiting.begin(), waiting.end(), [&](const auto& one) { return one->request.id == id; });
  };
  const std::set<std::string> put = link.put();
  for (const auto& id : put) {
    if (waits(id)) continue;
    link.put().erase(id);
    Envelope cancel;
    cancel.kind = Kind::cancel;
    cancel.sealed = link.channel().seal(ApprovalCancel{id});
    link.send(cancel, now);
  }
  for (const auto& one : waiting) {
    if (!link.hasRoomForQuestions() || link.hasEnded()) return;
    if (!link.put().insert(one->request.id).second) continue;
    Envelope question;
    question.kind = Kind::approvalRequest;
    question.sealed = link.channel().seal(one->request);
    link.send(question, now);
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
  offer.addresses = localAddresses();
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
