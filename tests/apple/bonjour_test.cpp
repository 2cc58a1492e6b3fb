// What announces and looks for computers on macOS, against a daemon that fails on purpose; tests/platform/bonjour has
// it against a real one.
#include <gtest/gtest.h>

#include "apple/fake/bonjour.h"
#include "platform/macos/bonjour_announcer.h"
#include "platform/macos/bonjour_browser.h"

namespace sorvane::test {
namespace {

using namespace std::chrono_literals;
using apple::FakeBonjour;
using platform::BonjourAnnouncer;
using platform::BonjourBrowser;

constexpr char kNotReached[] =
    "This computer is not announced on the local network, because Bonjour cannot be reached. Restart the computer, or "
    "type the address and the port on the phone.";

/// The one call of this number fails.
auto failing(int at, DNSServiceErrorType error = kDNSServiceErr_ServiceNotRunning) {
  return [=](int number) { return number == at ? error : kDNSServiceErr_NoError; };
}

TEST(BonjourAnnouncer, aCallThatFailsIsMadeUpForAndSaidToWhoAnnounces) {
  // The registration, its descriptor, and its result.
  for (int at = 1; at <= 3; ++at) {
    FakeBonjour daemon;
    daemon.outcome = failing(at);
    BonjourAnnouncer announcer(1ms, 10s);
    EXPECT_EQ(announcer.announce("desk", 40123, {"id=1"}), kNotReached) << "call " << at;
    EXPECT_TRUE(daemon.waitForRegistered(1)) << "call " << at;
    const auto service = daemon.registered();
    EXPECT_EQ(service.name, "desk._sorvane._tcp");
    EXPECT_EQ(service.port, 40123);
    EXPECT_EQ(service.interface, 0U);
    EXPECT_EQ(service.text, "\x04id=1");
  }
}

TEST(BonjourAnnouncer, aNetworkThatMayNotBeUsedIsAnnouncedOnOnceItMay) {
  for (const DNSServiceErrorType refusal : {DNSServiceErrorType{kDNSServiceErr_NoAuth}, -65570}) {
    FakeBonjour daemon;
    daemon.reply = failing(1, refusal);
    BonjourAnnouncer announcer(1ms, 10s);
    EXPECT_EQ(announcer.announce("desk", 40123, {}),
              "This computer is not announced on the local network, because macOS does not let sorvane use it. Allow "
              "sorvane in System Settings, Privacy & Security, Local Network, or type the address and the port on the "
              "phone.");
    EXPECT_TRUE(daemon.waitForRegistered(1));
  }
}

TEST(BonjourAnnouncer, aDaemonThatHangsUpIsToldAgainAndAWithdrawalIsNot) {
  FakeBonjour daemon;
  BonjourAnnouncer announcer(1ms, 10s);
  EXPECT_EQ(announcer.announce("desk", 40123, {}), std::nullopt);
  for (int time = 2; time < 5; ++time) {
    daemon.hangUp();
    EXPECT_TRUE(daemon.waitForRegistered(time));
  }
  announcer.withdraw();
  const int calls = daemon.calls();
  announcer.withdraw();
  EXPECT_EQ(daemon.calls(), calls);
}

TEST(BonjourAnnouncer, endsAtOnceWhileItWaitsToTryAgain) {
  FakeBonjour daemon;
  daemon.outcome = [](int) { return kDNSServiceErr_ServiceNotRunning; };
  const auto began = std::chrono::steady_clock::now();
  {
    BonjourAnnouncer announcer(60s, 10s);
    EXPECT_EQ(announcer.announce("desk", 40123, {}), kNotReached);
    EXPECT_EQ(announcer.announce("desk", 40124, {}), kNotReached);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - began, 30s);
}

/// The service that is looked for, on the loopback interface; its addresses with one twice and one that is none.
FakeBonjour::Service wanted() {
  const std::string linkLocal = std::string("\xFE\x80", 2) + std::string(13, '\0') + '\x07';
  return {"wanted",
          1,
          40202,
          "\x06more=1\x05id=ab",
          {{kDNSServiceType_A, "\x0A\x09\x01\x02"},
           {kDNSServiceType_A, "\x0A\x09\x01\x02"},
           {kDNSServiceType_A, "odd"},
           {kDNSServiceType_AAAA, linkLocal}}};
}

std::string told(const std::vector<approver::Browser::Found>& found) {
  std::string all;
  for (const auto& place : found) all += place.host + ' ' + std::to_string(place.port) + '\n';
  return all;
}

bool never() {
  return false;
}

TEST(BonjourBrowser, tellsEveryAddressOfTheIdOnceAndNoOther) {
  FakeBonjour daemon;
  auto onAnotherLink = wanted();
  onAnotherLink.interface = 0x7fffffff;  // whose name nobody knows any more
  auto closed = wanted(), gone = wanted(), other = wanted(), cut = wanted();
  closed.name = "closed", closed.port = 0;
  gone.name = "gone", gone.port = 1, gone.isRemoved = true;
  other.name = "other", other.port = 2, other.text = "\x06id=abc";
  cut.name = "cut", cut.port = 3, cut.text = "\xFFid=ab";
  daemon.services = {closed, gone, other, cut, onAnotherLink, wanted()};
  EXPECT_EQ(told(BonjourBrowser().find("ab", 20s, never)), "10.9.1.2 40202\nfe80::7%lo 40202\n");
}

TEST(BonjourBrowser, aNetworkFullOfServicesIsNotAskedWithoutAnEnd) {
  FakeBonjour daemon;
  auto service = wanted();
  service.addresses.clear();
  for (std::uint8_t i = 0; i < 200; ++i)
    service.addresses.push_back({kDNSServiceType_A, "\x0A\x09\x01" + std::string(1, static_cast<char>(i))});
  daemon.services = {service};
  EXPECT_EQ(BonjourBrowser().find("ab", 20s, never).size(), 64U);
  daemon.services.assign(200, {"other", 1, 1, "\x05id=no"});
  const int before = daemon.calls();
  EXPECT_TRUE(BonjourBrowser().find("ab", 300ms, never).empty());
  // The question with its descriptor, what it told, and for 64 of them where they are, once.
  EXPECT_LE(daemon.calls() - before, 2 + 200 + 64 * 3);
}

TEST(BonjourBrowser, aDaemonThatHangsUpEndsTheSearchWithWhatWasFound) {
  FakeBonjour daemon;
  daemon.services = {wanted()};
  // Services, their place and their addresses are told in three rounds.
  int rounds = 0;
  const auto hangUpInTheFourth = [&] {
    if (++rounds == 4) daemon.hangUp();
    return false;
  };
  const auto began = std::chrono::steady_clock::now();
  EXPECT_FALSE(BonjourBrowser().find("ab", 60s, hangUpInTheFourth).empty());
  daemon.services.clear();
  rounds = 3;
  EXPECT_TRUE(BonjourBrowser().find("ab", 60s, hangUpInTheFourth).empty());
  EXPECT_LT(std::chrono::steady_clock::now() - began, 30s);
}

TEST(BonjourBrowser, aCallThatFailsCostsNoMoreThanWhatItWasMadeFor) {
  const std::string ipv4 = "10.9.1.2 40202\n", ipv6 = "fe80::7%lo 40202\n";
  // What is found when this call fails: the question for services, its descriptor and its answer, the same for the
  // place of the service, the questions for addresses with their descriptors, and the answers to both.
  const std::vector<std::string> found{"", "", "", "", "", "", ipv6, ipv6, ipv4, ipv4, "", ipv4, ipv4 + ipv6};
  for (int at = 1; at <= static_cast<int>(found.size()); ++at) {
    FakeBonjour daemon;
    daemon.services = {wanted()};
    daemon.outcome = failing(at);
    EXPECT_EQ(told(BonjourBrowser().find("ab", 300ms, never)), found[static_cast<std::size_t>(at - 1)])
        << "call " << at;
  }
}

}  // namespace
}  // namespace sorvane::test
