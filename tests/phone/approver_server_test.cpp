// The server against phones that keep to the page and others that do not, over sockets on loopback.
#include "phone/approver_server.h"

#include <functional>

#include "server_house.h"

namespace sorvane::phone {
namespace {

using PairingState = ApproverServer::PairingState;

class ApproverServerTest : public ServerHouse {};

TEST_F(ApproverServerTest, aPhonePairsWithTheCodeAndIsServedAfterARestartOnTheSamePort) {
  EXPECT_FALSE(server().isServed());
  const auto offered = offer();
  EXPECT_EQ(offered.code.size(), 19U);
  EXPECT_EQ(offered.link, "sorvane://pair?v=4&key=" + base::base64Url(mac()) +
                              "&host=192.0.2.7&port=" + std::to_string(port_) + "&code=" + offered.code);
  EXPECT_FALSE(offered.notReachable);
  const auto announced = announcer_.now();
  EXPECT_EQ(announced, "Desk " + std::to_string(port_) + " id=" + crypto::sha256Hex(mac()).substr(0, 16));
  EXPECT_THROW(server().beginPairing(), PhoneError);

  auto phone = newPhone("Anna’s phone");
  {
    Connection link = connect();
    const auto challenge = challengeOf(link);
    const auto message = phone->pairMessage(challenge, code_);
    link.send(message);
    const auto answer = link.receive();
    ASSERT_TRUE(answer);
    EXPECT_TRUE(phone->believes(*answer, challenge, phone->expectedOfPairing(challenge, code_)));
    // The record is there before the phone believes it.
    EXPECT_NE(registry_.text().find("Anna’s phone"), std::string::npos);
    EXPECT_EQ(server().pairing().state, PairingState::paired);
    EXPECT_EQ(server().pairing().deviceName, "Anna’s phone");
    // The link goes on as a served one.
    auto asked = asking();
    link.send(phone->sealed(phone->answerTo(requestOf(*phone, link), false)));
    EXPECT_EQ(asked.get().is, Is::no);
    ASSERT_EQ(server().phones().size(), 1U);
    EXPECT_TRUE(server().phones()[0].connected);
  }
  const auto port = port_;
  const auto mac = this->mac();
  restart();
  EXPECT_TRUE(server().isServed());
  stillServes(*phone);
  EXPECT_EQ(port_, port);
  EXPECT_EQ(this->mac(), mac);
}

TEST_F(ApproverServerTest, aLinkThatLeadsHereFromHereAloneSaysSo) {
  addresses_.clear();
  const auto offered = offer();
  EXPECT_NE(offered.link.find("&host=127.0.0.1&port="), std::string::npos);
  EXPECT_EQ(offered.notReachable,
            "This computer is in no network, so no phone can get here by this link. No phone was paired. Cancel this, "
            "connect the computer to the phone’s network, then pair again.");
}

TEST_F(ApproverServerTest, aWrongCodeIsTriedFiveTimesAndThenTheRightOneIsVoidToo) {
  offer();
  auto phone = newPhone("phone");
  const std::string right = code_, wrong = (code_[0] == 'A' ? "B" : "A") + code_.substr(1);
  Connection waiting = connect();
  challengeOf(waiting);
  for (int left = kPairingAttempts - 1; left >= 0; --left) {
    EXPECT_EQ(server().pairing().state, PairingState::open);
    Connection link = connect();
    EXPECT_FALSE(pairs(*phone, link, wrong));
    EXPECT_EQ(server().pairing().attemptsLeft, left);
  }
  EXPECT_EQ(server().pairing().state, PairingState::tooManyAttempts);
  EXPECT_TRUE(server().phones().empty());
  EXPECT_EQ(registry_.text(), "");
  // Nobody is paired and pairing is over: nothing listens.
  EXPECT_EQ(waiting.receive(), std::nullopt);
  offer();
  Connection link = connect();
  EXPECT_FALSE(pairs(*phone, link, right));
  // The last attempt may be the right one.
  for (int i = 0; i < kPairingAttempts - 2; ++i) {
    Connection again = connect();
    EXPECT_FALSE(pairs(*phone, again, wrong));
  }
  Connection last = connect();
  EXPECT_TRUE(pairs(*phone, last, code_));
}

TEST_F(ApproverServerTest, pairingEndsWithItsTimeOrItsOwnersWordAndListeningWithIt) {
  offer();
  auto phone = newPhone("phone");
  Connection late = connect();
  const auto challenge = challengeOf(late);
  clock_.advance(kPairingLife - 1s);
  EXPECT_EQ(server().pairing().state, PairingState::open);
  EXPECT_EQ(server().pairing().timeLeft, 1s);
  clock_.advance(1s);
  EXPECT_EQ(server().pairing().state, PairingState::expired);
  late.send(phone->pairMessage(challenge, code_));
  EXPECT_TRUE(late.endsWithoutGrant());
  EXPECT_TRUE(server().phones().empty());

  offer();
  Connection waiting = connect();
  challengeOf(waiting);
  server().cancelPairing();
  EXPECT_EQ(server().pairing().state, PairingState::cancelled);
  EXPECT_EQ(waiting.receive(), std::nullopt);
  EXPECT_EQ(announcer_.now(), "");
  EXPECT_FALSE(connect().isConnected());
}

TEST_F(ApproverServerTest, aPhoneThatCannotBeSavedIsNotToldThatItIsPairedAndMayTryAgain) {
  offer();
  auto phone = newPhone("phone");
  registry_.refuse(true);
  {
    Connection link = connect();
    EXPECT_FALSE(pairs(*phone, link, code_));
  }
  EXPECT_TRUE(server().phones().empty());
  registry_.refuse(false);
  Connection link = connect();
  EXPECT_TRUE(pairs(*phone, link, code_));
  // One that cannot be taken out stays in, with its link.
  registry_.refuse(true);
  EXPECT_THROW(server().revoke("phone"), base::Error);
  EXPECT_EQ(server().phones().size(), 1U);
  registry_.refuse(false);
  stillServes(*phone);
}

TEST_F(ApproverServerTest, fivePhonesAreTheMostAndOneThatPairsAgainTakesItsOwnPlace) {
  std::vector<std::unique_ptr<ScriptedPhone>> phones;
  for (std::size_t i = 0; i < kMostPhones - 1; ++i) phones.push_back(paired("phone " + std::to_string(i % 2)));
  offer();
  Connection again = connect();
  EXPECT_TRUE(pairs(*phones[0], again, code_));
  EXPECT_EQ(server().phones().size(), kMostPhones - 1);
  phones.push_back(paired("last"));
  try {
    server().beginPairing();
    FAIL();
  } catch (const PhoneError& error) {
    EXPECT_EQ(error.sentence(),
              "Five phones are paired already, and no more can be. Nothing was shared. Take one out with sorvane phone "
              "revoke, then pair again.");
  }
  // A name of two phones takes none of them out; an id does.
  EXPECT_THROW(server().revoke("phone 1"), PhoneError);
  EXPECT_THROW(server().revoke("nobody"), PhoneError);
  server().revoke(crypto::sha256Hex(phones[1]->key()).substr(0, 16));
  server().revoke("phone 1");
  EXPECT_EQ(server().phones().size(), kMostPhones - 2);
}

TEST_F(ApproverServerTest, anUnknownPhoneIsToldSoAndARecordedHelloServesNobody) {
  const auto phone = paired("phone");
  {
    Connection link = connect();
    link.send(newPhone("stranger")->helloMessage(challengeOf(link)));
    const auto answer = link.receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->ok, false);
    EXPECT_EQ(link.receive(), std::nullopt);
  }
  Connection first = connect(), second = connect();
  const auto recorded = phone->helloMessage(challengeOf(first));
  challengeOf(second);
  second.send(recorded);
  EXPECT_TRUE(second.endsWithoutGrant());
  EXPECT_EQ(verdicts_.next(), Verdict::unreadable);
  first.send(recorded);
  EXPECT_EQ(first.receive()->ok, true);
  // Nor does it on the link that it was made for, once more.
  first.send(recorded);
  EXPECT_TRUE(first.endsWithoutGrant());
  stillServes(*phone);
}

TEST_F(ApproverServerTest, revokingEndsTheLinkAtOnceAndAnswersWhatWaitsWithNothing) {
  const auto phone = paired("phone");
  Connection link = served(*phone);
  auto asked = asking();
  const auto request = requestOf(*phone, link);
  server().revoke("phone");
  const auto notice = link.receive();
  ASSERT_TRUE(notice);
  EXPECT_EQ(phone->channel().open<UnpairNotice>(*notice->sealed)->phonePublicKey, phone->key());
  EXPECT_EQ(link.receive(), std::nullopt);
  EXPECT_EQ(asked.get().is, Is::none);
  EXPECT_FALSE(server().isServed());
  // With another phone still there, the revoked one is told that it is none.
  const auto other = paired("other");
  Connection back = connect();
  back.send(phone->helloMessage(challengeOf(back)));
  EXPECT_EQ(back.receive()->ok, false);
  EXPECT_EQ(registry_.text().find("\"phone\""), std::string::npos);
  stillServes(*other);
}

TEST_F(ApproverServerTest, aPhoneUnpairsItselfAloneByItsOwnName) {
  const auto phone = paired("phone"), other = paired("other");
  Envelope notice;
  notice.kind = Kind::unpair;
  Connection wrong = served(*phone);
  notice.sealed = phone->channel().seal(UnpairNotice{other->key()});
  wrong.send(notice);
  EXPECT_TRUE(wrong.endsWithoutGrant());
  EXPECT_EQ(server().phones().size(), 2U);
  Connection link = served(*phone);
  notice.sealed = phone->channel().seal(UnpairNotice{phone->key()});
  link.send(notice);
  EXPECT_TRUE(link.endsWithoutGrant());
  EXPECT_EQ(server().phones().size(), 1U);
  stillServes(*other);
}

struct AnswerCase {
  const char* name;
  std::function<void(ApprovalResponse&, const ScriptedPhone&)> change;
  Verdict verdict;
  bool ends;
};

TEST_F(ApproverServerTest, anAnswerIsJudgedAndWhatAnHonestPhoneNeverSendsEndsItsLink) {
  const auto phone = paired("phone");
  const AnswerCase cases[] = {
      {"another nonce", [](auto& a, auto&) { a.nonce[0] ^= 1; }, Verdict::mismatched, true},
      {"another digest", [](auto& a, auto&) { a.digest[31] ^= 1; }, Verdict::mismatched, true},
      {"no signature", [](auto& a, auto&) { a.presenceSignature.reset(); }, Verdict::missingPresence, true},
      {"a cut signature", [](auto& a, auto&) { a.presenceSignature->pop_back(); }, Verdict::missingPresence, true},
      {"a signature of another key",
       [](auto& a, auto&) { a.presenceSignature = crypto::PresenceKey::random().sign(presenceMessage(a.digest)); },
       Verdict::missingPresence, true},
      {"a signature of the earlier version",
       [](auto& a, auto& p) {
         std::string text("sorvane-presence-v2\0", 20);
         text += base::textOf(a.digest);
         a.presenceSignature = p.presence().sign(base::bytesOf(text));
       },
       Verdict::missingPresence, true},
      {"an id nobody asked", [](auto& a, auto&) { a.id = "0"; }, Verdict::unknownRequest, false},
  };
  auto asked = asking();
  for (const auto& one : cases) {
    SCOPED_TRACE(one.name);
    Connection link = served(*phone);
    const auto request = requestOf(*phone, link);
    auto answer = phone->answerTo(request, true);
    one.change(answer, *phone);
    link.send(phone->sealed(answer));
    EXPECT_EQ(verdicts_.next(), one.verdict);
    if (one.ends) {
      EXPECT_EQ(link.receive(), std::nullopt);
      continue;
    }
    link.send(phone->sealed(phone->answerTo(request, true)));
    EXPECT_EQ(verdicts_.next(), Verdict::accepted);
  }
  const auto answer = asked.get();
  EXPECT_EQ(answer.is, Is::yes);
  EXPECT_EQ(answer.phone, "phone");
}

TEST_F(ApproverServerTest, theFirstAnswerOfAnyPhoneCountsAndTheOthersAreTakenBack) {
  const auto one = paired("one"), two = paired("two");
  Connection first = served(*one), second = served(*two);
  auto asked = asking();
  const auto ofOne = requestOf(*one, first), ofTwo = requestOf(*two, second);
  EXPECT_NE(ofOne.id, ofTwo.id);
  EXPECT_EQ(ofOne.details, kDetails);
  {
    // What one was asked, two cannot answer.
    Connection other = served(*two);
    EXPECT_EQ(requestOf(*two, other), ofTwo);
    other.send(two->sealed(two->answerTo(ofOne, true)));
    EXPECT_EQ(verdicts_.next(), Verdict::wrongDevice);
    EXPECT_EQ(other.receive(), std::nullopt);
  }
  second.send(two->sealed(two->answerTo(ofTwo, false)));
  EXPECT_EQ(asked.get().is, Is::no);
  EXPECT_EQ(cancelOf(*one, first), ofOne.id);
  EXPECT_EQ(verdicts_.next(), Verdict::accepted);
  // The one that answered hears of the next question and of no cancel.
  auto next = asking();
  const auto again = requestOf(*two, second);
  second.send(two->sealed(two->answerTo(ofTwo, false)));
  EXPECT_EQ(verdicts_.next(), Verdict::unknownRequest);
  second.send(two->sealed(two->answerTo(again, true)));
  EXPECT_EQ(next.get().is, Is::yes);
}

TEST_F(ApproverServerTest, whoComesLaterIsAskedWhatWaitsAndAWithdrawnQuestionIsTakenBack) {
  const auto phone = paired("phone");
  auto asked = asking();
  const auto late = paired("late");
  Connection link = served(*late), other = served(*phone);
  const auto request = requestOf(*late, link), same = requestOf(*phone, other);
  stop_.request_stop();
  EXPECT_EQ(asked.get().is, Is::none);
  EXPECT_EQ(cancelOf(*late, link), request.id);
  EXPECT_EQ(cancelOf(*phone, other), same.id);
}

TEST_F(ApproverServerTest, manyAskAtOnceAndEachGetsItsOwnAnswer) {
  const auto phone = paired("phone");
  Connection link = served(*phone);
  constexpr int kAskers = 16;
  std::vector<std::future<ApproverServer::Answer>> asked;
  for (int i = 0; i < kAskers; ++i) {
    ApprovalDetails details = kDetails;
    details.subject = std::to_string(i);
    asked.push_back(asking(details));
  }
  for (int i = 0; i < kAskers; ++i) {
    auto request = requestOf(*phone, link);
    link.send(phone->sealed(phone->answerTo(request, std::stoi(*request.details.subject) % 2 == 0)));
  }
  for (std::size_t i = 0; i < kAskers; ++i) EXPECT_EQ(asked[i].get().is, i % 2 == 0 ? Is::yes : Is::no);
  // A question that fits no frame is answered with nothing at once, for somebody else to be asked.
  ApprovalDetails large = kDetails;
  large.reason.assign(60'000, 'x');
  EXPECT_EQ(server().ask(large, {}).is, Is::none);
  large.reason.assign(40'000, '\xFF');
  EXPECT_EQ(server().ask(large, {}).is, Is::none);
  // The largest that does arrives whole.
  large.reason.assign(47'000, 'x');
  auto whole = asking(large);
  const auto request = requestOf(*phone, link);
  EXPECT_EQ(request.details.reason, large.reason);
  link.send(phone->sealed(phone->answerTo(request, true)));
  EXPECT_EQ(whole.get().is, Is::yes);
}

TEST_F(ApproverServerTest, closingEndsLinksAndQuestionsAndOpeningBeginsAnew) {
  const auto phone = paired("phone");
  Connection link = served(*phone);
  auto asked = asking();
  requestOf(*phone, link);
  server().close();
  EXPECT_EQ(asked.get().is, Is::none);
  EXPECT_EQ(link.receive(), std::nullopt);
  EXPECT_EQ(server().ask(kDetails, {}).is, Is::none);
  EXPECT_TRUE(server().phones().empty());
  EXPECT_EQ(announcer_.now(), "");
  EXPECT_FALSE(connect().isConnected());
  EXPECT_THROW(server().beginPairing(), PhoneError);
  server().open();
  stillServes(*phone);
}

TEST_F(ApproverServerTest, aDamagedRegistryIsNeverTakenForAFreshOne) {
  paired("phone");
  server_.reset();
  const auto whole = registry_.text();
  const std::string damaged[] = {"",
                                 "{}",
                                 whole.substr(0, whole.size() - 1),
                                 std::string(whole).replace(whole.find("\"version\":1"), 11, "\"version\":2"),
                                 std::string(whole).replace(whole.find("identityKey"), 11, "identityWas"),
                                 std::string(whole).replace(whole.find("presenceKey"), 11, "presenceWas")};
  for (const auto& text : damaged) {
    SCOPED_TRACE(text.size());
    registry_.set(text);
    restart();
    EXPECT_FALSE(server().isServed());
    try {
      server().beginPairing();
      ADD_FAILURE();
    } catch (const PhoneError& error) {
      EXPECT_TRUE(error.sentence().starts_with("The list of paired phones ")) << error.sentence();
    }
    EXPECT_EQ(registry_.text(), text);
  }
  registry_.set(whole);
  restart();
  EXPECT_EQ(server().phones().size(), 1U);
}

}  // namespace
}  // namespace sorvane::phone
