#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "approver/link.h"
#include "phone/channel.h"
#include "phone/envelope.h"
#include "phone/frame.h"
#include "phone/records.h"
#include "support/doubles.h"

namespace sorvane::test {

/// Computer is the other end of a link, made of the computer's own code: what the two disagree on fails here.
class Computer {
 public:
  const phone::PublicKey& key() const { return key_.publicKey(); }
  crypto::AgreementKey& agreement() { return key_; }
  phone::Channel channelWith(const phone::PublicKey& device) const {
    return std::move(*phone::Channel::of(phone::Side::mac, key_, device));
  }

  phone::Challenge challenge{1, 2, 3};
  std::string name = "studio";

  phone::Envelope greeting() const {
    phone::Envelope envelope;
    envelope.kind = phone::Kind::challenge;
    envelope.peerPublicKey = key();
    envelope.challenge = challenge;
    envelope.macName = name;
    return envelope;
  }

 private:
  crypto::AgreementKey key_ = crypto::AgreementKey::random();
};

inline base::Bytes frameOf(const phone::Envelope& envelope) {
  return *phone::writeFrame(phone::encodeEnvelope(envelope));
}

template <typename Record>
phone::Envelope sealedEnvelope(const phone::Channel& channel, phone::Kind kind, const Record& record) {
  phone::Envelope envelope;
  envelope.kind = kind;
  envelope.sealed = channel.seal(record);
  return envelope;
}

inline phone::Envelope acknowledgement(const phone::Channel& channel, phone::Kind kind, const phone::MacProof& proof) {
  phone::Envelope envelope = sealedEnvelope(channel, kind, proof);
  envelope.ok = true;
  return envelope;
}

/// What the device sent, as the computer reads it.
inline std::vector<phone::Envelope> readByComputer(std::string_view bytes) {
  phone::FrameReader reader;
  reader.add(base::bytesOf(bytes));
  std::vector<phone::Envelope> envelopes;
  while (const auto body = reader.next()) {
    const auto envelope = phone::decodeEnvelope(*body, phone::Side::phone);
    EXPECT_TRUE(envelope) << *body;
    if (envelope) envelopes.push_back(*envelope);
  }
  EXPECT_FALSE(reader.isBroken() || reader.hasBegun());
  return envelopes;
}

/// A link between this device and a computer, with the handshake behind it when it was asked for.
class LinkFixture : public testing::Test {
 protected:
  using Link = approver::Link;

  Link newLink(std::optional<Link::Pairing> pairing = std::nullopt) {
    return Link({device, computer.key()}, std::move(pairing), seen, clock);
  }
  static std::vector<Link::Event> send(Link& link, const phone::Envelope& envelope) {
    return link.receive(frameOf(envelope));
  }
  phone::HelloProof helloOf(Link& link) {
    const auto sent = readByComputer(link.takeOutput());
    if (sent.size() != 1 || sent[0].kind != phone::Kind::hello) throw std::runtime_error("no hello came");
    EXPECT_EQ(sent[0].peerPublicKey, device.agreement.publicKey());
    return channel.open<phone::HelloProof>(*sent[0].sealed).value();
  }
  /// Stays until `links` is cleared.
  Link& openLink() {
    Link& link = links.emplace_back(Link::Ends{device, computer.key()}, std::nullopt, seen, clock);
    send(link, computer.greeting());
    const auto hello = helloOf(link);
    const auto events = send(link, acknowledgement(channel, phone::Kind::helloAck,
                                                   {hello.phoneChallenge, computer.challenge, computer.key()}));
    EXPECT_EQ(events.size(), 1U);
    EXPECT_TRUE(link.isOpen());
    return link;
  }
  phone::ApprovalRequest request(const std::string& id) const {
    phone::ApprovalRequest request;
    request.id = id;
    request.nonce = {7};
    request.details = {
        phone::ApprovalDetails::Kind::readSecret, "wants to read a value", "agent", "STRIPE_KEY", 3, {}, {}};
    request.macName = computer.name;
    request.issuedAt = clock.now();
    request.expiresAt = clock.now() + std::chrono::seconds(120);
    return request;
  }

  ManualClock clock;
  Computer computer;
  approver::DeviceKeys device{crypto::AgreementKey::random(), crypto::PresenceKey::random()};
  approver::SeenRequests seen;
  std::deque<Link> links;
  phone::Channel channel = computer.channelWith(device.agreement.publicKey());
};

}  // namespace sorvane::test
