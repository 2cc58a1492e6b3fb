#include "phone/verdict.h"

#include <gtest/gtest.h>

#include <map>

#include "crypto/presence_key.h"
#include "phone/digests.h"
#include "phone/envelope.h"
#include "phone/frame.h"
#include "vectors.h"

namespace sorvane::phone {

void PrintTo(ApprovalResponseVerdict verdict, std::ostream* out) {
  *out << nameOf(verdict);
}

namespace {

using Verdict = ApprovalResponseVerdict;

base::Date dateOf(std::int64_t seconds) {
  return base::Date(base::kReferenceDateOffset + std::chrono::seconds(seconds));
}

PairedPhone recordedPhone() {
  PairedPhone phone;
  phone.publicKey = publicKeyOf("phone");
  phone.presenceKey = arrayOf<65>(hexOf(linkVectors()["presence"]["public"]));
  return phone;
}

/// What the computer sent in the recorded link.
struct Recording {
  Challenge challenge{};
  std::map<std::string, WaitingRequest> asked;
};
const Recording& recording() {
  static const Recording made = [] {
    Recording out;
    const Channel channel = recordedChannel(Side::phone);
    for (const auto& frame : linkVectors()["session"]) {
      FrameReader reader;
      reader.add(hexOf(frame["frame"]));
      const auto envelope = decodeEnvelope(*reader.next(), Side::mac);
      if (envelope && envelope->kind == Kind::challenge) out.challenge = *envelope->challenge;
      if (!envelope || envelope->kind != Kind::approvalRequest) continue;
      const auto request = channel.open<ApprovalRequest>(*envelope->sealed).value();
      out.asked[request.id] = {request, publicKeyOf("phone")};
    }
    return out;
  }();
  return made;
}

/// The computer at the end of the recorded link, no more of it than the order of a link: every frame's outcome in a
/// word.
class Desk {
 public:
  std::vector<std::string> heard(const base::Bytes& bytes) {
    std::vector<std::string> outcomes;
    reader_.add(bytes);
    while (!ended_) {
      const auto body = reader_.next();
      if (!body) break;
      outcomes.push_back(outcomeOf(*body));
    }
    if (reader_.isBroken()) outcomes.push_back("unreadable");
    if (reader_.isBroken()) ended_ = true;
    return outcomes;
  }
  Challenge challenge = recording().challenge;
  std::map<std::string, WaitingRequest> waiting = recording().asked;
  base::Date now = dateOf(linkVectors()["now"]);
  int yes = 0, no = 0;

 private:
  std::string outcomeOf(const std::string& body) {
    const auto envelope = decodeEnvelope(body, Side::phone);
    if (!authenticated_ && envelope && envelope->kind == Kind::hello) return hello(*envelope);
    std::optional<ApprovalResponse> answer;
    if (envelope && envelope->kind == Kind::approvalResponse) {
      answer = channel().open<ApprovalResponse>(*envelope->sealed);
    }
    const auto asked = answer ? waiting.find(answer->id) : waiting.end();
    const Verdict verdict = judge(
        {authenticated_, &phone_, answer ? &*answer : nullptr, asked == waiting.end() ? nullptr : &asked->second, now});
    ended_ = endsLink(verdict);
    if (verdict == Verdict::accepted) {
      ++(answer->approved ? yes : no);
      waiting.erase(asked);
    }
    return std::string(nameOf(verdict));
  }

  std::string hello(const Envelope& envelope) {
    ended_ = true;
    if (*envelope.peerPublicKey != phone_.publicKey) return "revoked";
    const auto proof = channel().open<HelloProof>(*envelope.sealed);
    if (!proof) return "unreadable";
    if (proof->challenge != challenge || proof->phonePublicKey != phone_.publicKey) return "otherLink";
    ended_ = false;
    authenticated_ = true;
    return "hello";
  }

  static const Channel& channel() {
    static const Channel recorded = recordedChannel(Side::mac);
    return recorded;
  }

  PairedPhone phone_ = recordedPhone();
  FrameReader reader_;
  bool authenticated_ = false;
  bool ended_ = false;
};

/// What one side sent in the recording.
std::vector<base::Bytes> recordedFrames(Side side) {
  std::vector<base::Bytes> frames;
  for (const auto& frame : linkVectors()["session"]) {
    if (sideOf(frame["from"]) == side) frames.push_back(hexOf(frame["frame"]));
  }
  return frames;
}

using Outcomes = std::vector<std::string>;

Outcomes heardBy(Desk& desk, const std::vector<base::Bytes>& frames) {
  Outcomes all;
  for (const base::Bytes& frame : frames) {
    for (std::string& outcome : desk.heard(frame)) all.push_back(std::move(outcome));
  }
  return all;
}

TEST(RecordedLink, isAcceptedAsItWasAndInNoOtherOrder) {
  const auto frames = recordedFrames(Side::phone);
  ASSERT_EQ(frames.size(), 3U);
  const struct {
    std::vector<std::size_t> order;
    Outcomes outcomes;
    int yes, no;
  } cases[] = {
      {{0, 1, 2}, {"hello", "accepted", "accepted"}, 1, 1},
      {{0, 2, 1}, {"hello", "accepted", "accepted"}, 1, 1},  // two questions, in the order the person likes
      {{0, 2}, {"hello", "accepted"}, 0, 1},                 // dropped: its own question waits on
      {{1, 2}, {"notAuthenticated"}, 0, 0},
      {{1, 0, 2}, {"notAuthenticated"}, 0, 0},
      {{0, 1, 1, 2, 2}, {"hello", "accepted", "unknownRequest", "accepted", "unknownRequest"}, 1, 1},
      {{0, 0, 1}, {"hello", "unreadable"}, 0, 0},
  };
  for (const auto& [order, outcomes, yes, no] : cases) {
    std::vector<base::Bytes> chosen;
    for (const std::size_t at : order) chosen.push_back(frames[at]);
    Desk desk;
    EXPECT_EQ(heardBy(desk, chosen), outcomes);
    EXPECT_EQ(desk.yes, yes);
    EXPECT_EQ(desk.no, no);
  }
}

TEST(RecordedLink, opensNothingOnAnotherLinkNorForAnotherQuestion) {
  const auto frames = recordedFrames(Side::phone);
  Desk fresh;
  fresh.challenge[31] ^= 1;
  EXPECT_EQ(heardBy(fresh, frames), Outcomes{"otherLink"});
  // The computer asks anew under an id that was used before: every changed word of it is another question.
  using Change = void (*)(ApprovalRequest&);
  const Change changes[] = {
      [](ApprovalRequest& request) { request.nonce[0] ^= 1; },
      [](ApprovalRequest& request) { request.details.reason += "x"; },
      [](ApprovalRequest& request) { request.details.kind = ApprovalDetails::Kind::unlock; },
      [](ApprovalRequest& request) { request.details.subject.reset(); },
      [](ApprovalRequest& request) { request.details.version = 3; },
      [](ApprovalRequest& request) { request.details.allowedTargets->push_back("production"); },
      [](ApprovalRequest& request) { request.details.declaredTarget = "production"; },
      [](ApprovalRequest& request) { request.macName = "Other"; },
      [](ApprovalRequest& request) { request.expiresAt += std::chrono::seconds(1); },
  };
  for (const Change change : changes) {
    Desk desk;
    change(desk.waiting.at("req_1").request);
    EXPECT_EQ(heardBy(desk, frames), (Outcomes{"hello", "mismatched"}));
  }
  Desk late;
  late.now += std::chrono::seconds(120);
  EXPECT_EQ(heardBy(late, frames), (Outcomes{"hello", "accepted", "accepted"}));
  late = Desk();
  late.now += std::chrono::seconds(121);
  EXPECT_EQ(heardBy(late, frames), (Outcomes{"hello", "expired", "expired"}));
}

TEST(RecordedLink, acceptsNoFrameOfItsOwnSide) {
  for (const base::Bytes& frame : recordedFrames(Side::mac)) {
    Desk desk;
    EXPECT_EQ(heardBy(desk, {frame}), Outcomes{"notAuthenticated"});
    desk = Desk();
    EXPECT_EQ(heardBy(desk, {recordedFrames(Side::phone)[0], frame}), (Outcomes{"hello", "unreadable"}));
    // The box of another message under the answer's kind.
    FrameReader reader;
    reader.add(frame);
    auto envelope = decodeEnvelope(*reader.next(), Side::mac).value();
    if (!envelope.sealed) continue;
    const Envelope dressed{.kind = Kind::approvalResponse, .sealed = envelope.sealed};
    desk = Desk();
    EXPECT_EQ(heardBy(desk, {recordedFrames(Side::phone)[0], writeFrame(encodeEnvelope(dressed)).value()}),
              (Outcomes{"hello", "unreadable"}));
  }
}

TEST(RecordedLink, losesItsMeaningWithAnyBitOfAPhonesFrame) {
  const auto recorded = recordedFrames(Side::phone);
  std::map<std::string, int> outcomes;
  int flips = 0;
  Desk before;
  for (std::size_t at = 0; at < recorded.size(); ++at) {
    for (std::size_t bit = 0; bit < recorded[at].size() * 8; ++bit, ++flips) {
      base::Bytes flipped = recorded[at];
      flipped[bit / 8] = static_cast<std::uint8_t>(flipped[bit / 8] ^ (1U << bit % 8));
      Desk desk = before;
      const Outcomes heard = desk.heard(flipped);
      ASSERT_EQ(desk.yes + desk.no, before.yes + before.no) << at << " " << bit;
      // A length that grew waits for bytes that do not come.
      ++outcomes[heard.empty() ? "begun" : heard.back()];
    }
    ASSERT_EQ(before.heard(recorded[at]).size(), 1U);
  }
  int counted = 0;
  for (const auto& [outcome, count] : outcomes) {
    EXPECT_TRUE(outcome == "begun" || outcome == "unreadable" || outcome == "revoked" || outcome == "notAuthenticated")
        << outcome;
    counted += count;
  }
  EXPECT_EQ(counted, flips);
  EXPECT_EQ(before.yes + before.no, 2);
  EXPECT_GT(outcomes["revoked"], 200);  // the key of a stranger in the hello
}

TEST(RecordedLink, pairsNobodyWithAnyBitOfThePairingChanged) {
  const auto& frames = linkVectors()["pairing"]["frames"];
  const base::Bytes recorded = hexOf(frames[1]["frame"]);
  const auto mac = keyOf("mac");
  const auto confirmOf = [&](const base::Bytes& bytes) -> std::optional<PairConfirm> {
    FrameReader reader;
    reader.add(bytes);
    const auto body = reader.next();
    const auto envelope = body ? decodeEnvelope(*body, Side::phone) : std::nullopt;
    if (!envelope || envelope->kind != Kind::pair) return std::nullopt;
    const auto channel = Channel::of(Side::mac, mac, envelope->pairRequest->phonePublicKey);
    auto confirm = channel ? channel->open<PairConfirm>(envelope->pairRequest->sealedConfirm) : std::nullopt;
    // A key's top bit is no matter of the agreement.
    if (confirm && confirm->phonePublicKey != envelope->pairRequest->phonePublicKey) confirm.reset();
    return confirm;
  };
  ASSERT_EQ(confirmOf(recorded)->proof, linkVectors()["pairing"]["proof"]);
  for (std::size_t bit = 0; bit < recorded.size() * 8; ++bit) {
    base::Bytes flipped = recorded;
    flipped[bit / 8] = static_cast<std::uint8_t>(flipped[bit / 8] ^ (1U << bit % 8));
    ASSERT_FALSE(confirmOf(flipped)) << bit;
  }
}

TEST(RecordedLink, losesItsMeaningWithAnyBitOfTheComputersFrame) {
  const auto phone = recordedChannel(Side::phone);
  int harmless = 0;
  for (const base::Bytes& recorded : recordedFrames(Side::mac)) {
    for (std::size_t bit = 0; bit < recorded.size() * 8; ++bit) {
      base::Bytes flipped = recorded;
      flipped[bit / 8] = static_cast<std::uint8_t>(flipped[bit / 8] ^ (1U << bit % 8));
      FrameReader reader;
      reader.add(flipped);
      const auto body = reader.next();
      const auto envelope = body ? decodeEnvelope(*body, Side::mac) : std::nullopt;
      if (!envelope) continue;
      if (envelope->kind == Kind::challenge) {
        // Another key is refused by who knows the right one, another challenge by the computer; the name is for show.
        harmless += *envelope->peerPublicKey == publicKeyOf("mac") && envelope->challenge == recording().challenge;
      } else {
        ASSERT_TRUE(envelope->sealed);
        EXPECT_FALSE(phone.open<MacProof>(*envelope->sealed) || phone.open<ApprovalRequest>(*envelope->sealed) ||
                     phone.open<ApprovalCancel>(*envelope->sealed))
            << bit;
      }
    }
  }
  EXPECT_GT(harmless, 0);
  EXPECT_LE(harmless, 8 * 7);
}

TEST(Verdict, isTheFirstThatHoldsInThePagesOrder) {
  const auto& presence = linkVectors()["presence"];
  const auto key = crypto::PresenceKey::fromBytes(hexOf(presence["scalar"])).value();
  const PairedPhone phone = recordedPhone();
  WaitingRequest waiting{{}, phone.publicKey};
  waiting.request.id = "req_9";
  waiting.request.expiresAt = dateOf(120);
  ApprovalResponse answer{"req_9", waiting.request.nonce, approvalDigest(waiting.request), true, std::nullopt};
  answer.presenceSignature = key.sign(presenceMessage(answer.digest));
  AnswerFacts facts{true, &phone, &answer, &waiting, dateOf(120)};
  ASSERT_EQ(judge(facts), Verdict::accepted);

  // From the last reason to the first, each on top of those behind it.
  ApprovalResponse spoilt = answer;
  facts.answer = &spoilt;
  const base::Bytes unsignedBytes[] = {
      {},
      key.sign(answer.digest),
      crypto::PresenceKey::random().sign(presenceMessage(answer.digest)),
      base::Bytes(answer.presenceSignature->begin(), answer.presenceSignature->end() - 1),
  };
  for (const base::Bytes& signature : unsignedBytes) {
    spoilt.presenceSignature = signature;
    EXPECT_EQ(judge(facts), Verdict::missingPresence);
  }
  constexpr std::string_view kVersion2 = "sorvane-presence-v2";
  base::Bytes message(kVersion2.begin(), kVersion2.end());
  message.push_back(0);
  message.insert(message.end(), answer.digest.begin(), answer.digest.end());
  spoilt.presenceSignature = key.sign(message);
  EXPECT_EQ(judge(facts), Verdict::missingPresence);
  spoilt.presenceSignature.reset();
  EXPECT_EQ(judge(facts), Verdict::missingPresence);
  spoilt.approved = false;
  EXPECT_EQ(judge(facts), Verdict::accepted);
  spoilt.approved = true;
  facts.now = dateOf(121);
  EXPECT_EQ(judge(facts), Verdict::expired);
  spoilt.digest[0] ^= 1;
  EXPECT_EQ(judge(facts), Verdict::mismatched);
  spoilt.digest = answer.digest;
  spoilt.nonce[31] ^= 1;
  EXPECT_EQ(judge(facts), Verdict::mismatched);
  waiting.phone = publicKeyOf("stranger");
  EXPECT_EQ(judge(facts), Verdict::wrongDevice);
  facts.request = nullptr;
  EXPECT_EQ(judge(facts), Verdict::unknownRequest);
  facts.answer = nullptr;
  EXPECT_EQ(judge(facts), Verdict::unreadable);
  facts.phone = nullptr;
  EXPECT_EQ(judge(facts), Verdict::revoked);
  facts.isAuthenticated = false;
  EXPECT_EQ(judge(facts), Verdict::notAuthenticated);
}

TEST(Verdict, takesThePresenceSignatureOfAnotherWriterInItsThirdVersionOnly) {
  const auto& presence = linkVectors()["presence"];
  const auto key = arrayOf<65>(hexOf(presence["public"]));
  const base::Bytes message = presenceMessage(arrayOf<32>(hexOf(presence["digest"])));
  EXPECT_EQ(base::hexLower(message), presence["message"].get<std::string>());
  EXPECT_TRUE(crypto::verifyPresence(key, message, hexOf(presence["signature"])));
  EXPECT_FALSE(crypto::verifyPresence(key, message, hexOf(presence["signatureOfVersion2"])));
}

}  // namespace
}  // namespace sorvane::phone
