#include "approver/link.h"

#include <utility>

#include "base/codec.h"
#include "base/ids.h"
#include "base/json_writer.h"

namespace sorvane::approver {
namespace {

void require(bool holds, LinkError::Case otherwise = LinkError::Case::unreadable) {
  if (!holds) throw LinkError(otherwise);
}

Channel channelOf(const Link::Ends& ends) {
  auto channel = Channel::between(ends.device.agreement, ends.computer);
  require(channel.has_value(), LinkError::Case::wrongComputer);
  return std::move(*channel);
}

/// How an answer to each request is called.
struct AnswerWords {
  FromPhone kind;
  Record record;
};
AnswerWords answerWordsOf(FromComputer kind) {
  if (kind == FromComputer::keyApproval) return {FromPhone::keyApprovalAnswer, Record::keyApprovalAnswer};
  if (kind == FromComputer::approverRegister)
    return {FromPhone::approverRegisterAnswer, Record::approverRegisterAnswer};
  return {FromPhone::approvalResponse, Record::approvalResponse};
}

std::string answerText(const Question& question, Link::Answer answer, const crypto::PresenceKey& presence) {
  const bool isRegistration = question.kind == FromComputer::approverRegister;
  const bool isYes = answer == Link::Answer::yes;
  base::JsonWriter writer;
  writer.beginObject().field("id", question.id).key("nonce").base64(question.nonce);
  if (!isRegistration) writer.key("digest").base64(question.digest);
  writer.key(isRegistration ? "accepted" : "approved").boolean(isYes);
  if (isYes) {
    if (isRegistration) writer.field("publicKey", base::base64(presence.publicKey()));
    writer.key(question.kind == FromComputer::approvalRequest ? "presenceSignature" : "signature")
        .base64(presence.sign(presenceMessage(question.digest)));
  }
  writer.endObject();
  return std::string(writer.view());
}

}  // namespace

void SeenRequests::add(const Question& question, std::string answer) {
  answered_.insert_or_assign(question.id, Answered{question, std::move(answer)});
}

const std::string* SeenRequests::answerTo(const Question& question) const {
  const auto found = answered_.find(question.id);
  if (found == answered_.end()) return nullptr;
  const Question& answered = found->second.question;
  const bool isSame =
      answered.kind == question.kind && answered.nonce == question.nonce && answered.digest == question.digest;
  return isSame ? &found->second.answer : nullptr;
}

void SeenRequests::forgetExpired(base::Date now) {
  std::erase_if(answered_, [now](const auto& each) { return each.second.question.expiresAt <= now; });
}

Link::Link(const Ends& ends, std::optional<Pairing> pairing, SeenRequests& seen, const base::Clock& clock)
    : device_(ends.device),
      computer_(ends.computer),
      channel_(channelOf(ends)),
      pairing_(std::move(pairing)),
      clock_(clock),
      seen_(seen) {}

std::vector<Link::Event> Link::receive(std::span<const std::uint8_t> bytes) {
  std::vector<Event> events;
  reader_.add(bytes);
  while (state_ != State::ended) {
    const auto body = reader_.next();
    if (!body) break;
    const Envelope envelope = readEnvelope(*body);
    if (state_ == State::greeting)
      greet(envelope);
    else
      events.push_back(take(envelope));
  }
  return events;
}

std::string Link::takeOutput() {
  return std::exchange(output_, {});
}

void Link::greet(const Envelope& challenge) {
  require(challenge.kind == FromComputer::challenge);
  require(*challenge.peerPublicKey == computer_, LinkError::Case::wrongComputer);
  challenge_ = *challenge.challenge;
  macName_ = *challenge.macName;
  const PublicKey& own = device_.agreement.publicKey();
  if (pairing_) {
    const auto& presence = device_.presence.publicKey();
    const base::Bytes presenceKey(presence.begin(), presence.end());
    const std::string proof = pairingProof(pairing_->code, {computer_, own, challenge_, presenceKey});
    phoneChallenge_ = crypto::sha256(base::bytesOf(proof));
    const std::string confirm = write(PairConfirm{own, presenceKey, pairing_->deviceName, proof});
    output_ += framed(pairEnvelope(own, channel_.seal(Record::pairConfirm, confirm)));
  } else {
    base::fillRandom(phoneChallenge_);
    const std::string proof = write(HelloProof{challenge_, phoneChallenge_, own});
    output_ += framed(helloEnvelope(own, channel_.seal(Record::helloProof, proof)));
  }
  state_ = State::proving;
}

Link::Event Link::take(const Envelope& envelope) {
  if (state_ == State::proving) return prove(envelope);
  switch (envelope.kind) {
    case FromComputer::approvalRequest:
    case FromComputer::keyApproval:
    case FromComputer::approverRegister:
      return ask(envelope);
    case FromComputer::cancel: {
      const std::string id = readApprovalCancel(openBox(envelope, Record::approvalCancel));
      waiting_.erase(id);
      return Withdrawn{id};
    }
    case FromComputer::unpair: {
      const PublicKey named = readUnpairNotice(openBox(envelope, Record::unpairFromComputer));
      require(named == device_.agreement.publicKey());
      state_ = State::ended;
      return Unpaired{};
    }
    case FromComputer::challenge:
    case FromComputer::paired:
    case FromComputer::helloAck:
      break;
  }
  throw LinkError(LinkError::Case::unreadable);
}

Link::Event Link::prove(const Envelope& acknowledgement) {
  require(acknowledgement.kind == (pairing_ ? FromComputer::paired : FromComputer::helloAck));
  if (!*acknowledgement.ok) {
    state_ = State::ended;
    return Refused{};
  }
  const MacProof proof = readMacProof(openBox(acknowledgement, Record::macProof));
  require(proof.phoneChallenge == phoneChallenge_ && proof.challenge == challenge_ && proof.macPublicKey == computer_,
          LinkError::Case::wrongComputer);
  state_ = State::open;
  return Connected{macName_};
}

Link::Event Link::ask(const Envelope& envelope) {
  Question question;
  if (envelope.kind == FromComputer::approvalRequest)
    question = questionOf(readApprovalRequest(openBox(envelope, Record::approvalRequest)));
  else if (envelope.kind == FromComputer::keyApproval)
    question = questionOf(readKeyApprovalAsk(openBox(envelope, Record::keyApprovalAsk)));
  else
    question = questionOf(readApproverRegisterAsk(openBox(envelope, Record::approverRegisterAsk)));
  const base::Date now = clock_.now();
  std::erase_if(waiting_, [now](const auto& each) { return each.second.expiresAt <= now; });
  seen_.forgetExpired(now);
  if (now >= question.expiresAt) return PassedOver{PassedOver::Why::expired};
  // It is put again because the answer went with an earlier link.
  const std::string* const given = seen_.answerTo(question);
  if (given != nullptr && !answeredHere_.contains(question.id)) {
    sendAnswer(question, *given);
    return PassedOver{PassedOver::Why::answerSentAgain};
  }
  if (seen_.has(question.id) || waiting_.contains(question.id)) return PassedOver{PassedOver::Why::answeredBefore};
  if (waiting_.size() >= kMostWaiting) return PassedOver{PassedOver::Why::tooMany};
  waiting_.emplace(question.id, question);
  return Asked{std::move(question)};
}

bool Link::answer(const std::string& id, Answer answer) {
  const auto found = waiting_.find(id);
  if (!isOpen() || found == waiting_.end()) return false;
  const Question question = std::move(found->second);
  waiting_.erase(found);
  const std::string text = answerText(question, answer, device_.presence);
  seen_.forgetExpired(clock_.now());
  seen_.add(question, text);
  sendAnswer(question, text);
  return true;
}

void Link::sendAnswer(const Question& question, std::string_view text) {
  answeredHere_.insert(question.id);
  const auto [kind, record] = answerWordsOf(question.kind);
  sendSealed(kind, record, text);
}

void Link::unpair() {
  sendSealed(FromPhone::unpair, Record::unpairFromPhone, writeUnpairNotice(device_.agreement.publicKey()));
  state_ = State::ended;
}

std::string Link::openBox(const Envelope& envelope, Record record) const {
  return std::string(channel_.open(record, *envelope.sealed).view());
}

void Link::sendSealed(FromPhone kind, Record record, std::string_view text) {
  output_ += framed(sealedEnvelope(kind, channel_.seal(record, text)));
}

}  // namespace sorvane::approver
