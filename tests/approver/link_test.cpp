#include "approver/link.h"

#include <gtest/gtest.h>

#include "approver/computer.h"
#include "base/codec.h"
#include "base/date.h"
#include "crypto/derivation.h"
#include "crypto/digest.h"
#include "crypto/mac.h"
#include "phone/digests.h"

namespace sorvane::test {
namespace {

using approver::LinkError;
using phone::Kind;
using namespace std::chrono_literals;

template <typename Event>
bool isOnly(const std::vector<approver::Link::Event>& events) {
  return events.size() == 1 && std::holds_alternative<Event>(events[0]);
}

template <typename Action>
std::optional<LinkError::Case> failureOf(const Action& action) {
  try {
    action();
    return std::nullopt;
  } catch (const LinkError& error) {
    return error.kind();
  }
}

std::string lengthOf(std::size_t size) {
  return {static_cast<char>(size >> 24U), static_cast<char>(size >> 16U), static_cast<char>(size >> 8U),
          static_cast<char>(size)};
}

std::string field(std::span<const std::uint8_t> bytes) {
  return lengthOf(bytes.size()) + std::string(base::textOf(bytes));
}

class ApproverLink : public LinkFixture {};

TEST_F(ApproverLink, pairsWithAProofMadeOfTheCodeAndBothKeys) {
  const std::string code = "ABCDEFGHIJKLMNO2";
  Link link = newLink(Link::Pairing{code, "tablet"});
  EXPECT_TRUE(send(link, computer.greeting()).empty());
  const auto sent = readByComputer(link.takeOutput());
  ASSERT_EQ(sent.size(), 1U);
  ASSERT_EQ(sent[0].kind, Kind::pair);
  EXPECT_EQ(sent[0].pairRequest->phonePublicKey, device.agreement.publicKey());
  const auto confirm = channel.open<phone::PairConfirm>(sent[0].pairRequest->sealedConfirm);
  ASSERT_TRUE(confirm);
  EXPECT_EQ(confirm->presenceKey, device.presence.publicKey());
  EXPECT_EQ(confirm->deviceName, "tablet");
  EXPECT_FALSE(confirm->hardwarePresenceKey);

  const auto& own = device.agreement.publicKey();
  base::Bytes info(computer.key().begin(), computer.key().end());
  info.insert(info.end(), own.begin(), own.end());
  std::array<std::uint8_t, 32> key{};
  crypto::hkdfSha256(base::bytesOf(code), base::bytesOf("sorvane-pairing-v1"), info, key);
  const std::string message = std::string("sorvane-pairing-v1") + '\0' + field(computer.key()) + field(own) +
                              field(computer.challenge) + field(device.presence.publicKey());
  EXPECT_EQ(confirm->proof, base::base64(crypto::hmacSha256(key, base::bytesOf(message))));

  const auto expected = crypto::sha256(base::bytesOf(confirm->proof));
  EXPECT_TRUE(isOnly<Link::Connected>(
      send(link, acknowledgement(channel, Kind::paired, {expected, computer.challenge, computer.key()}))));
  EXPECT_TRUE(link.isOpen());
}

TEST_F(ApproverLink, takesOnlyAProofOfThisVeryLink) {
  struct Case {
    const char* what;
    std::function<void(phone::MacProof&)> change;
  };
  for (const Case& each : {Case{"the device's challenge", [](auto& proof) { proof.phoneChallenge[0] ^= 1; }},
                           Case{"the computer's challenge", [](auto& proof) { proof.challenge[31] ^= 1; }},
                           Case{"the computer's key", [](auto& proof) { proof.macPublicKey[5] ^= 1; }}}) {
    Link link = newLink();
    send(link, computer.greeting());
    phone::MacProof proof{helloOf(link).phoneChallenge, computer.challenge, computer.key()};
    each.change(proof);
    EXPECT_EQ(failureOf([&] { send(link, acknowledgement(channel, Kind::helloAck, proof)); }),
              LinkError::Case::wrongComputer)
        << each.what;
    EXPECT_FALSE(link.isOpen()) << each.what;
  }
  // An acknowledgement of another handshake, or a "paired" that nobody asked for.
  Link link = newLink();
  send(link, computer.greeting());
  const phone::MacProof proof{helloOf(link).phoneChallenge, computer.challenge, computer.key()};
  EXPECT_EQ(failureOf([&] { send(link, acknowledgement(channel, Kind::paired, proof)); }), LinkError::Case::unreadable);
}

TEST_F(ApproverLink, saysNothingToAnotherComputer) {
  Computer other;
  Link link = newLink();
  EXPECT_EQ(failureOf([&] { send(link, other.greeting()); }), LinkError::Case::wrongComputer);
  EXPECT_EQ(link.takeOutput(), "");
  // Keys of low order make a channel that everyone has.
  for (const std::uint8_t first : base::Bytes{0, 1})
    EXPECT_EQ(failureOf([&] {
                Link({device, phone::PublicKey{first}}, std::nullopt, seen, clock);
              }),
              LinkError::Case::wrongComputer);
}

TEST_F(ApproverLink, endsWhenTheComputerSaysNo) {
  for (const bool isPairing : {false, true}) {
    Link link = newLink(isPairing ? std::optional(Link::Pairing{"ABCDEFGHIJKLMNO2", "tablet"}) : std::nullopt);
    send(link, computer.greeting());
    phone::Envelope no;
    no.kind = isPairing ? Kind::paired : Kind::helloAck;
    no.ok = false;
    EXPECT_TRUE(isOnly<Link::Refused>(send(link, no)));
    EXPECT_FALSE(link.isOpen());
  }
}

TEST_F(ApproverLink, signsTheDigestThatTheComputerComputes) {
  Link& link = openLink();
  std::vector<phone::ApprovalRequest> requests;
  for (const auto kind : {phone::ApprovalDetails::Kind::useEnvironment, phone::ApprovalDetails::Kind::readSecret,
                          phone::ApprovalDetails::Kind::unlock, phone::ApprovalDetails::Kind::other,
                          phone::ApprovalDetails::Kind::taskSession}) {
    requests.push_back(request("kind " + std::to_string(static_cast<int>(kind))));
    requests.back().details.kind = kind;
  }
  requests.push_back(request("all there"));
  requests.back().details = {
      phone::ApprovalDetails::Kind::taskSession, "r\n\"", "ümläut", "s", -5, {{"a", "", "b"}}, "t"};
  requests.push_back(request("nothing there"));
  requests.back().details = {phone::ApprovalDetails::Kind::other, "", "", {}, {}, {}, {}};
  requests.push_back(request("empty is not absent"));
  requests.back().details = {phone::ApprovalDetails::Kind::other, "", "", "", 0, std::vector<std::string>(), ""};
  for (const phone::ApprovalRequest& each : requests) {
    ASSERT_TRUE(isOnly<Link::Asked>(send(link, sealedEnvelope(channel, Kind::approvalRequest, each)))) << each.id;
    const auto answer = each.id == "nothing there" ? Link::Answer::no : Link::Answer::yes;
    EXPECT_TRUE(link.answer(each.id, answer));
    const auto sent = readByComputer(link.takeOutput());
    ASSERT_EQ(sent.size(), 1U);
    const auto response = channel.open<phone::ApprovalResponse>(*sent[0].sealed);
    ASSERT_TRUE(response) << each.id;
    const phone::Digest digest = phone::approvalDigest(each);
    EXPECT_EQ(response->digest, digest) << each.id;
    EXPECT_EQ(response->nonce, each.nonce);
    EXPECT_EQ(response->approved, answer == Link::Answer::yes);
    ASSERT_EQ(response->presenceSignature.has_value(), response->approved);
    if (response->approved) {
      EXPECT_TRUE(crypto::verifyPresence(device.presence.publicKey(), phone::presenceMessage(digest),
                                         *response->presenceSignature));
    }
  }
}

TEST_F(ApproverLink, answersTheOtherRequestsInTheirOwnRecords) {
  Link& link = openLink();
  const phone::KeyApprovalAsk ask{"k", {1}, {{"b", "2"}, {"a", "1"}}, "w", {}, "studio", clock.now() + 60s, "s"};
  ASSERT_TRUE(isOnly<Link::Asked>(send(link, sealedEnvelope(channel, Kind::keyApproval, ask))));
  const phone::ApproverRegisterAsk enrol{"r", {2}, "id", {}, "user", "label", "studio", clock.now() + 60s};
  ASSERT_TRUE(isOnly<Link::Asked>(send(link, sealedEnvelope(channel, Kind::approverRegister, enrol))));
  EXPECT_TRUE(link.answer("k", Link::Answer::yes));
  EXPECT_TRUE(link.answer("r", Link::Answer::yes));
  const auto sent = readByComputer(link.takeOutput());
  ASSERT_EQ(sent.size(), 2U);
  const auto approval = channel.open<phone::KeyApprovalAnswer>(*sent[0].sealed);
  ASSERT_TRUE(approval && approval->signature);
  EXPECT_EQ(approval->digest, phone::keyApprovalDigest(ask));
  const auto& presence = device.presence.publicKey();
  EXPECT_TRUE(crypto::verifyPresence(presence, phone::presenceMessage(approval->digest), *approval->signature));
  const auto accepted = channel.open<phone::ApproverRegisterAnswer>(*sent[1].sealed);
  ASSERT_TRUE(accepted && accepted->signature);
  EXPECT_EQ(accepted->publicKey, base::base64(presence));
  EXPECT_TRUE(
      crypto::verifyPresence(presence, phone::presenceMessage(phone::registrationDigest(enrol)), *accepted->signature));
}

TEST_F(ApproverLink, putsNoRequestToThePersonTwice) {
  using Why = Link::PassedOver::Why;
  const auto whyOf = [](const std::vector<Link::Event>& events) {
    return isOnly<Link::PassedOver>(events) ? std::optional(std::get<Link::PassedOver>(events[0]).why) : std::nullopt;
  };
  const auto one = sealedEnvelope(channel, Kind::approvalRequest, request("one"));
  Link& link = openLink();
  EXPECT_TRUE(isOnly<Link::Asked>(send(link, one)));
  EXPECT_EQ(whyOf(send(link, one)), Why::answeredBefore) << "while it waits";
  EXPECT_TRUE(link.answer("one", Link::Answer::no));
  EXPECT_FALSE(link.answer("one", Link::Answer::yes));
  EXPECT_EQ(whyOf(send(link, one)), Why::answeredBefore) << "once it is answered";
  const auto given = readByComputer(link.takeOutput());
  ASSERT_EQ(given.size(), 1U);
  Link& later = openLink();
  EXPECT_EQ(whyOf(send(later, one)), Why::answerSentAgain) << "on another link";
  EXPECT_EQ(whyOf(send(later, one)), Why::answeredBefore) << "once a link";
  const auto again = readByComputer(later.takeOutput());
  ASSERT_EQ(again.size(), 1U);
  EXPECT_EQ(channel.open<phone::ApprovalResponse>(*again[0].sealed),
            channel.open<phone::ApprovalResponse>(*given[0].sealed));
  // In its name nothing else is answered.
  auto other = request("one");
  other.nonce = {8};
  EXPECT_EQ(whyOf(send(openLink(), sealedEnvelope(channel, Kind::approvalRequest, other))), Why::answeredBefore);
  other = request("one");
  other.details.reason = "wants another value";
  EXPECT_EQ(whyOf(send(openLink(), sealedEnvelope(channel, Kind::approvalRequest, other))), Why::answeredBefore);
  EXPECT_EQ(links.back().takeOutput(), "");
  clock.advance(120s);
  EXPECT_EQ(whyOf(send(openLink(), one)), Why::expired);
  EXPECT_EQ(links.back().takeOutput(), "");
  EXPECT_FALSE(seen.has("one"));

  // One that was not answered may come again.
  const auto two = sealedEnvelope(channel, Kind::approvalRequest, request("two"));
  EXPECT_TRUE(isOnly<Link::Asked>(send(later, two)));
  EXPECT_TRUE(
      isOnly<Link::Withdrawn>(send(later, sealedEnvelope(channel, Kind::cancel, phone::ApprovalCancel{"two"}))));
  EXPECT_FALSE(later.answer("two", Link::Answer::yes));
  EXPECT_EQ(later.takeOutput(), "");
  Link& last = openLink();
  EXPECT_TRUE(isOnly<Link::Asked>(send(last, two)));
  for (std::size_t i = 1; i < Link::kMostWaiting; ++i)
    EXPECT_TRUE(
        isOnly<Link::Asked>(send(last, sealedEnvelope(channel, Kind::approvalRequest, request(std::to_string(i))))));
  EXPECT_EQ(whyOf(send(last, sealedEnvelope(channel, Kind::approvalRequest, request("more")))), Why::tooMany);
}

TEST_F(ApproverLink, endsWithThePairing) {
  Link& link = openLink();
  EXPECT_EQ(
      failureOf([&] { send(link, sealedEnvelope(channel, Kind::unpair, phone::UnpairNotice{phone::PublicKey{1}})); }),
      LinkError::Case::unreadable)
      << "another device's";
  Link& again = openLink();
  const auto& own = device.agreement.publicKey();
  EXPECT_TRUE(isOnly<Link::Unpaired>(send(again, sealedEnvelope(channel, Kind::unpair, phone::UnpairNotice{own}))));
  EXPECT_FALSE(again.isOpen());
  Link& telling = openLink();
  telling.unpair();
  const auto sent = readByComputer(telling.takeOutput());
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(channel.open<phone::UnpairNotice>(*sent[0].sealed)->phonePublicKey, own);
}

/// The text of a request's record with one of its texts changed, sealed as the right record.
TEST_F(ApproverLink, endsOnARecordThatIsNotAsItHasToBe) {
  const std::string good(phone::encodeRecord(request("x")).view());
  struct Case {
    const char *what, *from, *to;
  };
  for (const Case& each : {
           Case{"a null is not absent", R"("version":3)", R"("version":null)"},
           Case{"a fraction is no version", R"("version":3)", R"("version":3.0)"},
           Case{"beyond 64 bits", R"("version":3)", R"("version":9223372036854775808)"},
           Case{"a key twice", R"("version":3)", R"("version":3,"version":3)"},
           Case{"an unknown kind", "readSecret", "readSecrets"},
           Case{"a text for a number", R"("version":3)", R"("version":"3")"},
           Case{"a text with a zero", "STRIPE_KEY", R"(STRIPE\u0000KEY)"},
           Case{"no id", R"("id":"x")", R"("id":"")"},
           Case{"no name", R"("macName":"studio")", R"("macName":"")"},
           Case{"a nonce that is too short", R"("nonce":"Bw)", R"("nonce":"AAAA)"},
           Case{"base64 with a stray bit", "AAA=\"", "AAB=\""},
           Case{"too deep", R"("subject":"STRIPE_KEY")", R"("subject":[[[[[[[[[[[[[[[[1]]]]]]]]]]]]]]]])"},
       }) {
    std::string bad = good;
    ASSERT_NE(bad.find(each.from), std::string::npos) << each.what << " in " << good;
    bad.replace(bad.find(each.from), std::string_view(each.from).size(), each.to);
    Link& link = openLink();
    phone::Envelope envelope;
    envelope.kind = Kind::approvalRequest;
    envelope.sealed = channel.sealText(bad, "approval-request", phone::Side::mac);
    EXPECT_EQ(failureOf([&] { send(link, envelope); }), LinkError::Case::unreadable) << each.what;
  }
  // The same text in another box, or sent back to where it came from.
  for (const auto& [label, side] : {std::pair("approval-response", phone::Side::mac),
                                    {"approval-request", phone::Side::phone},
                                    {"keyApproval", phone::Side::mac}}) {
    Link& link = openLink();
    phone::Envelope envelope;
    envelope.kind = Kind::approvalRequest;
    envelope.sealed = channel.sealText(good, label, side);
    EXPECT_EQ(failureOf([&] { send(link, envelope); }), LinkError::Case::unreadable) << label;
  }
}

TEST_F(ApproverLink, endsOnAnEnvelopeThatIsNotAsItHasToBe) {
  const std::string sealed = base::base64(channel.seal(request("x")));
  for (const std::string& body : {
           std::string("x"),
           std::string("[]"),
           std::string(R"({"v":4})"),
           R"({"v":3,"kind":"approvalRequest","sealed":")" + sealed + "\"}",
           R"({"v":4.0,"kind":"approvalRequest","sealed":")" + sealed + "\"}",
           R"({"v":4,"kind":"approvalRequest","sealed":")" + sealed + R"(","ok":true})",
           R"({"v":4,"kind":"approvalRequest","sealed":")" + sealed + R"(","macName":null})",
           R"({"v":4,"kind":"approvalResponse","sealed":")" + sealed + "\"}",
           std::string(R"({"v":4,"kind":"helloAck","ok":false})"),
           std::string(R"({"v":4,"kind":"approvalRequest"})"),
           R"({"v":4,"kind":"approvalRequest","sealed":")" + sealed + R"(","x":)" + std::string(16, '[') +
               std::string(16, ']') + "}",
       }) {
    Link& link = openLink();
    EXPECT_EQ(failureOf([&] { link.receive(*phone::writeFrame(body)); }), LinkError::Case::unreadable) << body;
  }
  // A key that nobody knows is passed over.
  Link& link = openLink();
  EXPECT_TRUE(isOnly<Link::Asked>(
      link.receive(*phone::writeFrame(R"({"v":4,"x":null,"kind":"approvalRequest","sealed":")" + sealed + "\"}"))));
  // Lengths that no body has end it before the body comes.
  for (const base::Bytes& length :
       {base::Bytes{0, 0, 0, 0}, base::Bytes{0, 1, 0, 1}, base::Bytes{255, 255, 255, 255}}) {
    Link& again = openLink();
    EXPECT_EQ(failureOf([&] { again.receive(length); }), LinkError::Case::unreadable);
  }
}

TEST_F(ApproverLink, showsNothingOfAFrameWithAFlippedBit) {
  const base::Bytes frame = frameOf(sealedEnvelope(channel, Kind::approvalRequest, request("x")));
  for (std::size_t bit = 0; bit < frame.size() * 8; ++bit) {
    base::Bytes flipped = frame;
    flipped[bit / 8] = static_cast<std::uint8_t>(flipped[bit / 8] ^ (1U << bit % 8));
    links.clear();
    Link& link = openLink();
    // A longer length only makes it wait for more.
    const auto failure = failureOf([&] { EXPECT_TRUE(link.receive(flipped).empty()) << bit; });
    EXPECT_TRUE(failure || link.isInFrame()) << bit;
  }
  // In single bytes it is the same request.
  Link& link = openLink();
  std::size_t asked = 0;
  for (const std::uint8_t byte : frame) asked += link.receive({&byte, 1}).size();
  EXPECT_EQ(asked, 1U);
}

}  // namespace
}  // namespace sorvane::test
