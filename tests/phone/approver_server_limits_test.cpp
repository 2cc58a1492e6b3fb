// The server against what no phone sends: altered, replayed and reflected frames, and floods.
#include <sys/resource.h>

#include <functional>

#include "phone/questions.h"
#include "server_house.h"

namespace sorvane::phone {
namespace {

class ApproverServerLimits : public ServerHouse {
 protected:
  static std::string frameOf(const Envelope& message) { return Connection::framed(encodeEnvelope(message)); }
  /// Sends a frame once for each of its bits, altered there, on a link of its own, and then nothing more: none may be
  /// granted anything. `begin` takes what a link needs before, and `frame` makes its frame; as many links as strangers
  /// may have go side by side, because they spend their time waiting for one another.
  struct Steps {
    std::function<void(Connection&)> begin;
    std::function<std::string(Connection&)> frame;
  };
  void refusesEveryBit(const Steps& steps, std::size_t lanes) {
    std::size_t bits = 1;
    for (std::size_t first = 0; first < bits && !HasFailure(); first += lanes) {
      std::vector<Connection> links;
      for (std::size_t lane = 0; lane < lanes; ++lane) {
        links.push_back(connect(("127.0.0." + std::to_string(2 + lane / kMostNewLinksOfSource)).c_str()));
      }
      for (auto& link : links) steps.begin(link);
      for (std::size_t lane = 0; lane < lanes; ++lane) {
        std::string frame = steps.frame(links[lane]);
        bits = frame.size() * 8;
        const std::size_t bit = (first + lane) % bits;
        frame[bit / 8] = static_cast<char>(static_cast<unsigned char>(frame[bit / 8]) ^ (1U << bit % 8));
        links[lane].sendBytes(frame);
        links[lane].finish();
      }
      for (auto& link : links) EXPECT_TRUE(link.endsWithoutGrant()) << "bits from " << first;
    }
    EXPECT_GT(bits, 2000U);
  }
};

TEST_F(ApproverServerLimits, noPairWithAnAlteredBitPairsAndNoneIsAGuessAtTheCode) {
  offer();
  const auto phone = newPhone("phone");
  const auto frame = [&](Connection& link) { return frameOf(phone->pairMessage(challengeOf(link), code_)); };
  refusesEveryBit({[](Connection&) {}, frame}, kMostNewLinks);
  EXPECT_EQ(server().pairing().attemptsLeft, kPairingAttempts);
  EXPECT_TRUE(server().phones().empty());
  Connection link = connect();
  link.send(phone->pairMessage(challengeOf(link), code_));
  EXPECT_EQ(link.receive()->ok, true);
}

TEST_F(ApproverServerLimits, noHelloWithAnAlteredBitIsServed) {
  const auto phone = paired("phone");
  const auto frame = [&](Connection& link) { return frameOf(phone->helloMessage(challengeOf(link))); };
  refusesEveryBit({[](Connection&) {}, frame}, kMostNewLinks);
  stillServes(*phone);
}

TEST_F(ApproverServerLimits, noAnswerWithAnAlteredBitCountsAndTheRecordedOneCountsOnce) {
  const auto phone = paired("phone");
  auto asked = asking();
  std::string answer;
  verdicts_.clear();
  refusesEveryBit({[&](Connection& link) { link.send(phone->helloMessage(challengeOf(link))); },
                   [&](Connection& link) {
                     EXPECT_EQ(link.receive()->ok, true);
                     const auto request = requestOf(*phone, link);
                     // One recorded answer: the request is the same as long as it waits.
                     if (answer.empty()) answer = frameOf(phone->sealed(phone->answerTo(request, true)));
                     return answer;
                   }},
                  kMostLinks);
  for (const auto verdict : verdicts_.all()) EXPECT_EQ(verdict, Verdict::unreadable);
  Connection link = served(*phone);
  requestOf(*phone, link);
  verdicts_.clear();
  link.sendBytes(answer);
  EXPECT_EQ(verdicts_.next(), Verdict::accepted);
  link.sendBytes(answer);
  EXPECT_EQ(verdicts_.next(), Verdict::unknownRequest);
  EXPECT_EQ(asked.get().is, Is::yes);
}

TEST_F(ApproverServerLimits, reflectedReorderedAndDroppedFramesAnswerNothing) {
  const auto phone = paired("phone");
  auto asked = asking();
  std::vector<Envelope> fromServer;
  {
    Connection link = connect();
    fromServer.push_back(*link.receive());
    const auto challenge = *fromServer[0].challenge;
    link.send(phone->helloMessage(challenge));
    fromServer.push_back(*link.receive());
    fromServer.push_back(*link.receive());
  }
  const auto request = *phone->channel().open<ApprovalRequest>(*fromServer[2].sealed);
  const auto answer = phone->sealed(phone->answerTo(request, true));
  verdicts_.clear();
  // What the computer sent comes back, as it is and as something that a phone sends.
  for (const auto& message : fromServer) {
    Connection asItIs = served(*phone);
    requestOf(*phone, asItIs);
    asItIs.send(message);
    EXPECT_TRUE(asItIs.endsWithoutGrant());
    EXPECT_EQ(verdicts_.next(), Verdict::unreadable);
    if (!message.sealed) continue;
    for (const Kind kind :
         {Kind::approvalResponse, Kind::keyApprovalAnswer, Kind::approverRegisterAnswer, Kind::unpair}) {
      Connection asOther = served(*phone);
      requestOf(*phone, asOther);
      Envelope reflected;
      reflected.kind = kind;
      reflected.sealed = message.sealed;
      asOther.send(reflected);
      EXPECT_TRUE(asOther.endsWithoutGrant());
      EXPECT_EQ(verdicts_.next(), Verdict::unreadable);
    }
  }
  {
    // The answer before the hello, and the hello after it.
    Connection link = connect();
    const auto hello = phone->helloMessage(challengeOf(link));
    link.send(answer);
    link.send(hello);
    EXPECT_TRUE(link.endsWithoutGrant());
    EXPECT_EQ(verdicts_.next(), Verdict::notAuthenticated);
  }
  {
    // The last byte is lost.
    Connection link = served(*phone);
    requestOf(*phone, link);
    const auto frame = Connection::framed(encodeEnvelope(answer));
    link.sendBytes(std::string_view(frame).substr(0, frame.size() - 1));
    link.finish();
    EXPECT_TRUE(link.endsWithoutGrant());
  }
  Connection link = served(*phone);
  requestOf(*phone, link);
  link.send(answer);
  EXPECT_EQ(verdicts_.next(), Verdict::accepted);
  EXPECT_EQ(asked.get().is, Is::yes);
}

TEST_F(ApproverServerLimits, everyKindInTheWrongStateEndsTheLink) {
  const auto phone = paired("phone");
  const auto box = phone->channel().seal(HelloProof{});
  for (int i = 0; i <= static_cast<int>(Kind::approverRegisterAnswer); ++i) {
    Envelope message;
    message.kind = static_cast<Kind>(i);
    SCOPED_TRACE(nameOf(message.kind));
    message.sealed = box;
    if (message.kind == Kind::hello) message.peerPublicKey = phone->key();
    if (message.kind == Kind::pair) message = phone->pairMessage({}, "A");
    const bool isOfThePhonesLater = message.kind == Kind::approvalResponse || message.kind == Kind::unpair ||
                                    message.kind == Kind::keyApprovalAnswer ||
                                    message.kind == Kind::approverRegisterAnswer;
    Connection fresh = connect();
    challengeOf(fresh);
    fresh.send(message);
    EXPECT_TRUE(fresh.endsWithoutGrant());
    // Who wants to pair while nobody may is told so; that is no verdict on an answer.
    if (message.kind != Kind::pair) {
      EXPECT_EQ(verdicts_.next(), isOfThePhonesLater ? Verdict::notAuthenticated : Verdict::unreadable);
    }
    Connection known = served(*phone);
    known.send(message);
    EXPECT_TRUE(known.endsWithoutGrant());
    EXPECT_EQ(verdicts_.next(), Verdict::unreadable);
  }
  stillServes(*phone);
}

TEST_F(ApproverServerLimits, whatIsNoFrameOrNoEnvelopeEndsTheLinkAndTheServerGoesOn) {
  const auto phone = paired("phone");
  const auto bomb = [](const std::string& piece, std::size_t size) {
    std::string text;
    while (text.size() < size) text += piece;
    return Connection::framed(text);
  };
  const std::string head("\x00\x01\x00\x00", 4);
  const std::pair<const char*, std::string> cases[] = {
      {"no bytes", std::string(4, '\0')},
      {"one byte too many", std::string("\x00\x01\x00\x01", 4)},
      {"4 GiB", "\xFF\xFF\xFF\xFF"},
      {"65,536 bytes of nothing", head + std::string(kMostFrameBytes, ' ')},
      {"deep arrays", bomb("[", kMostFrameBytes)},
      {"deep objects", bomb("{\"a\":", 60'000)},
      {"many keys", bomb("{\"v\":4,\"kind\":\"hello\",", 60'000)},
      {"no JSON", Connection::framed("GET / HTTP/1.1")},
      {"no UTF-8", Connection::framed("{\"v\":4,\"kind\":\"\xFF\"}")},
      {"another version", Connection::framed("{\"v\":3,\"kind\":\"hello\"}")},
      {"no kind", Connection::framed("{\"v\":4,\"kind\":\"goodbye\"}")},
  };
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    Connection fresh = connect();
    challengeOf(fresh);
    fresh.sendBytes(bytes);
    EXPECT_TRUE(fresh.endsWithoutGrant());
    EXPECT_EQ(verdicts_.next(), Verdict::unreadable);
    Connection known = served(*phone);
    known.sendBytes(bytes);
    EXPECT_TRUE(known.endsWithoutGrant());
    EXPECT_EQ(verdicts_.next(), Verdict::unreadable);
  }
  // 65,536 bytes are allowed where they say something.
  Connection link = connect();
  auto hello = encodeEnvelope(phone->helloMessage(challengeOf(link)));
  hello.append(kMostFrameBytes - hello.size(), ' ');
  link.sendBytes(Connection::framed(hello));
  EXPECT_EQ(link.receive()->ok, true);
  stillServes(*phone);
}

TEST_F(ApproverServerLimits, whoIsSilentOrSlowIsLetGoAfterTenSeconds) {
  const auto phone = paired("phone");
  Connection quiet = served(*phone), halting = served(*phone), silent = connect(), slow = connect();
  challengeOf(silent);
  slow.sendBytes(Connection::framed(encodeEnvelope(phone->helloMessage(challengeOf(slow)))).substr(0, 100));
  const auto half = Connection::framed(encodeEnvelope(phone->sealed(ApprovalResponse{"1", {}, {}, false, {}})));
  halting.sendBytes(std::string_view(half).substr(0, 3));
  // Another link's turn comes after these.
  stillServes(*phone);
  verdicts_.clear();
  clock_.advance(kHelloTime - 1s);
  // More bytes do not begin the time anew.
  halting.sendBytes(std::string_view(half).substr(3, 10));
  stillServes(*phone);
  clock_.advance(1s);
  EXPECT_EQ(silent.receive(), std::nullopt);
  EXPECT_EQ(slow.receive(), std::nullopt);
  // Questions that came meanwhile were put to it.
  EXPECT_TRUE(halting.endsWithoutGrant());
  // Of half a frame it is said so; who is silent said nothing that could be judged.
  EXPECT_EQ(verdicts_.next(), Verdict::accepted);
  EXPECT_EQ(verdicts_.next(), Verdict::unreadable);
  EXPECT_EQ(verdicts_.next(), Verdict::unreadable);
  stillServes(*phone);
  EXPECT_EQ(verdicts_.next(), Verdict::accepted);
  // A served link that says nothing at all stays.
  for (int cancelled = 0; cancelled < 3;) {
    const auto message = quiet.receive();
    ASSERT_TRUE(message);
    if (message->kind == Kind::cancel) ++cancelled;
  }
  auto asked = asking();
  quiet.send(phone->sealed(phone->answerTo(requestOf(*phone, quiet), true)));
  EXPECT_EQ(asked.get().is, Is::yes);
}

TEST_F(ApproverServerLimits, aLinkHasSixtyFramesAMinute) {
  const auto phone = paired("phone");
  const auto unasked = phone->sealed(ApprovalResponse{"1", {}, {}, false, {}});
  Connection link = served(*phone);
  const auto send = [&](std::size_t frames) {
    for (std::size_t i = 0; i < frames; ++i) link.send(unasked);
    for (std::size_t i = 0; i < frames; ++i) ASSERT_EQ(verdicts_.next(), Verdict::unknownRequest);
  };
  verdicts_.clear();
  // The hello was the first.
  send(kMostFramesPerMinute - 1);
  clock_.advance(60s);
  send(kMostFramesPerMinute);
  clock_.advance(59s);
  link.send(unasked);
  EXPECT_EQ(link.receive(), std::nullopt);
  EXPECT_EQ(verdicts_.next(), Verdict::unreadable);
  stillServes(*phone);
}

TEST_F(ApproverServerLimits, strangersHaveFourLinksASourceAndSixteenInAll) {
  const auto phone = paired("phone");
  Connection known = served(*phone);
  std::vector<Connection> links;
  for (const char* from : {"127.0.0.2", "127.0.0.3", "127.0.0.4", "127.0.0.5"}) {
    for (std::size_t i = 0; i < kMostNewLinksOfSource; ++i) {
      links.push_back(connect(from));
      challengeOf(links.back());
    }
    Connection more = connect(from);
    EXPECT_EQ(more.receive(), std::nullopt) << from;
  }
  EXPECT_EQ(connect("127.0.0.6").receive(), std::nullopt);
  // Who is known already is not held up.
  auto asked = asking();
  known.send(phone->sealed(phone->answerTo(requestOf(*phone, known), true)));
  EXPECT_EQ(asked.get().is, Is::yes);
  clock_.advance(kHelloTime);
  for (auto& link : links) EXPECT_EQ(link.receive(), std::nullopt);
  stillServes(*phone);
}

TEST_F(ApproverServerLimits, theAddressesOfOneSourceCountTogether) {
  sourceOf_ = sourceNetwork;
  offer();
  std::vector<Connection> links;
  for (const char* from : {"127.0.0.1", "127.0.0.2", "127.1.2.3", "127.255.255.254"}) {
    links.push_back(connect(from));
    challengeOf(links.back());
  }
  EXPECT_EQ(connect("127.0.0.5").receive(), std::nullopt);
}

TEST_F(ApproverServerLimits, aThousandConnectionsHoldNoMoreThanAFewFrames) {
  const auto phone = paired("phone");
  rlimit descriptors{};
  ::getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = descriptors.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &descriptors);
  const std::string most = std::string("\x00\x01\x00\x00", 4) + std::string(kMostFrameBytes - 1, ' ');
  std::vector<Connection> links;
  for (int i = 0; i < 1000; ++i) {
    links.push_back(connect());
    links.back().sendBytes(most);
  }
  std::vector<Connection*> challenged;
  for (auto& link : links) {
    if (link.receive()) challenged.push_back(&link);
  }
  EXPECT_EQ(challenged.size(), kMostNewLinksOfSource);
  clock_.advance(kHelloTime);
  for (auto* link : challenged) EXPECT_EQ(link->receive(), std::nullopt);
  stillServes(*phone);
}

TEST_F(ApproverServerLimits, theOlderLinkOfAPhoneMakesRoomForANewOne) {
  const auto phone = paired("phone"), other = paired("other");
  Connection alone = served(*other);
  std::vector<Connection> links;
  for (std::size_t i = 0; i < kMostLinks - 1; ++i) links.push_back(served(*phone));
  Connection newest = served(*phone);
  EXPECT_EQ(links[0].receive(), std::nullopt);
  // The only link of a phone stays, whoever comes.
  Connection another = served(*phone);
  EXPECT_EQ(links[1].receive(), std::nullopt);
  auto asked = asking();
  alone.send(other->sealed(other->answerTo(requestOf(*other, alone), true)));
  EXPECT_EQ(asked.get().is, Is::yes);
}

TEST_F(ApproverServerLimits, aPhoneThatTakesNothingIsLetGoAndHoldsNobodyUp) {
  const auto phone = paired("phone"), other = paired("other");
  constexpr int kSmallest = 1;
  Connection stuck = served(*phone, kSmallest), link = served(*other);
  ApprovalDetails large = kDetails;
  large.reason.assign(47'000, 'x');
  std::vector<std::future<ApproverServer::Answer>> asked;
  // More than every buffer between them holds.
  for (int i = 0; i < 48; ++i) asked.push_back(asking(large));
  for (std::size_t i = 0; i < asked.size(); ++i) {
    link.send(other->sealed(other->answerTo(requestOf(*other, link), true)));
  }
  for (auto& one : asked) EXPECT_EQ(one.get().is, Is::yes);
  changes_.clear();
  clock_.advance(kFrameTime);
  // Read before it was let go, it would take something again.
  EXPECT_TRUE(changes_.next());
  EXPECT_TRUE(stuck.endsWithoutGrant());
  stillServes(*other);
}

}  // namespace
}  // namespace sorvane::phone
