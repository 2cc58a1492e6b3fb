// The server against phones that keep to the page and others that do not, over sockets on loopback.
#include "phone/approver_server.h"

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
                              "&host=" + offered.link.substr(offered.link.find("&host=") + 6));
  EXPECT_NE(offered.link.find("&port=" + std::to_string(port_) + "&code=" + offered.code), std::string::npos);
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

}  // namespace
}  // namespace sorvane::phone
