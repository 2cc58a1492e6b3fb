// How links and questions end while something is still on its way.
#include "server_house.h"

namespace sorvane::phone {
namespace {

class ApproverServerEnds : public ServerHouse {
 protected:
  Connection pairedAgain(const ScriptedPhone& phone) {
    offer();
    Connection link = connect();
    EXPECT_TRUE(pairs(phone, link, code_));
    return link;
  }
};

TEST_F(ApproverServerEnds, anAnswerOfAPhoneThatWasJustRevokedIsJudgedSoAndTheNoticeReachesIt) {
  const auto phone = paired("phone"), other = paired("other");
  Connection link = served(*phone);
  auto asked = asking();
  const auto request = requestOf(*phone, link);
  server().revoke("phone");
  verdicts_.clear();
  link.send(phone->sealed(phone->answerTo(request, true)));
  EXPECT_EQ(verdicts_.next(), Verdict::revoked);
  const auto notice = link.receive();
  ASSERT_TRUE(notice);
  EXPECT_EQ(notice->kind, Kind::unpair);
  EXPECT_EQ(link.receive(), std::nullopt);
  // Not even when the same phone is paired again meanwhile, nor in any box that nothing opens.
  Connection again = pairedAgain(*phone);
  const auto anew = requestOf(*phone, again);
  EXPECT_NE(anew.id, request.id);
  link.send(phone->sealed(phone->answerTo(anew, true)));
  EXPECT_EQ(verdicts_.next(), Verdict::revoked);
  auto closed = phone->sealed(phone->answerTo(anew, true));
  closed.sealed->back() ^= 1;
  link.send(closed);
  EXPECT_EQ(verdicts_.next(), Verdict::revoked);
  // What it says is taken for a while and no longer.
  link.send(phone->helloMessage({}));
  clock_.advance(kLeavingTime);
  EXPECT_TRUE(link.isRefused());
  EXPECT_TRUE(verdicts_.all().empty());
  stop_.request_stop();
  EXPECT_EQ(asked.get().is, Is::none);
}

TEST_F(ApproverServerEnds, aPhoneThatPairsAgainEndsItsEarlierLinks) {
  const auto phone = paired("phone");
  Connection earlier = served(*phone);
  Connection again = pairedAgain(*phone);
  EXPECT_EQ(earlier.receive(), std::nullopt);
  auto asked = asking();
  again.send(phone->sealed(phone->answerTo(requestOf(*phone, again), true)));
  EXPECT_EQ(asked.get().is, Is::yes);
}

TEST_F(ApproverServerEnds, aPhoneWhosePresenceKeyIsNoPointDoesNotPairAndIsNoGuessAtTheCode) {
  offer();
  const auto phone = newPhone("phone");
  Connection link = connect();
  const auto challenge = challengeOf(link);
  auto confirm = phone->confirmOf(challenge, code_);
  confirm.presenceKey[64] ^= 1;
  confirm.proof = pairingProof(code_, mac(), confirm, challenge);
  Envelope message;
  message.kind = Kind::pair;
  message.pairRequest = PairRequest{phone->key(), phone->channel().seal(confirm)};
  link.send(message);
  EXPECT_TRUE(link.endsWithoutGrant());
  EXPECT_EQ(verdicts_.next(), Verdict::unreadable);
  EXPECT_EQ(server().pairing().attemptsLeft, kPairingAttempts);
}

TEST_F(ApproverServerEnds, aYesThatDoesNotCountLeavesTheQuestionOnTheOthersUntilANo) {
  const auto phone = paired("phone"), other = paired("other");
  Connection link = served(*phone), elsewhere = served(*other);
  auto asked = std::async(std::launch::async, [this] {
    return server_->ask(kDetails, stop_.get_token(), ApproverServer::Yes::doesNotCount);
  });
  const auto yes = phone->sealed(phone->answerTo(requestOf(*phone, link), true));
  const auto request = requestOf(*other, elsewhere);
  verdicts_.clear();
  link.send(yes);
  EXPECT_EQ(verdicts_.next(), Verdict::accepted);
  // The phone hears that its answer is needed no more, also where it comes back, and no other does.
  cancelOf(*phone, link);
  Connection back = served(*phone);
  back.send(yes);
  EXPECT_EQ(verdicts_.next(), Verdict::unknownRequest);
  elsewhere.send(other->sealed(other->answerTo(request, false)));
  EXPECT_EQ(verdicts_.next(), Verdict::accepted);
  const auto answer = asked.get();
  EXPECT_EQ(answer.is, Is::no);
  EXPECT_EQ(answer.phone, "other");
}

TEST_F(ApproverServerEnds, aLateAnswerAndOneBeforeTheHelloCountForNothing) {
  const auto phone = paired("phone");
  Connection link = served(*phone);
  auto asked = asking();
  const auto request = requestOf(*phone, link);
  {
    Connection early = connect();
    challengeOf(early);
    early.send(phone->sealed(phone->answerTo(request, true)));
    EXPECT_TRUE(early.endsWithoutGrant());
    EXPECT_EQ(verdicts_.next(), Verdict::notAuthenticated);
  }
  // The wall clock is set forward; the asker still waits.
  clock_.setWall(clock_.now() + kRequestLife + 1s);
  link.send(phone->sealed(phone->answerTo(request, true)));
  EXPECT_EQ(verdicts_.next(), Verdict::expired);
  clock_.advance(kRequestLife);
  EXPECT_EQ(asked.get().is, Is::none);
  EXPECT_EQ(cancelOf(*phone, link), request.id);
  // Whatever the clock on the wall says by then, and for a minute.
  clock_.setWall(request.issuedAt);
  link.send(phone->sealed(phone->answerTo(request, true)));
  EXPECT_EQ(verdicts_.next(), Verdict::expired);
  clock_.advance(60s);
  link.send(phone->sealed(phone->answerTo(request, true)));
  EXPECT_EQ(verdicts_.next(), Verdict::unknownRequest);
  stillServes(*phone);
}

}  // namespace
}  // namespace sorvane::phone
