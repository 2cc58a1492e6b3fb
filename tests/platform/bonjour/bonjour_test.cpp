// What announces and looks for computers on macOS, over two real Avahis on one cable, which offer the same C interface;
// tests/support/with-two-hosts makes them and starts this program. Its counterparts are the adapters of Linux.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "base/descriptor.h"
#include "platform/linux/avahi_announcer.h"
#include "platform/linux/avahi_browser.h"
#include "platform/macos/bonjour_announcer.h"
#include "platform/macos/bonjour_browser.h"
#include "support/on_phone.h"

namespace sorvane::test {
namespace {

using namespace std::chrono_literals;
using approver::Browser;
using platform::BonjourAnnouncer;
using platform::BonjourBrowser;

const std::string kBrowse = "stdbuf -oL avahi-browse --parsable --resolve _sorvane._tcp";

int avahi(const std::string& what) {
  return std::system((variable("SORVANE_TWO_HOSTS") + " --avahi " + what).c_str());
}

/// Where this thread is while it lives: in the network of one of the two hosts and at its bus. No other thread looks
/// for a bus meanwhile.
class At {
 public:
  explicit At(const std::string& host) : home_(::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)) {
    const std::string network = "/run/netns/" + variable((host + "_HOST").c_str());
    enter(base::Descriptor(::open(network.c_str(), O_RDONLY | O_CLOEXEC)), host);
  }
  ~At() { enter(home_, "DESK"); }
  At(const At&) = delete;
  At& operator=(const At&) = delete;

 private:
  static void enter(const base::Descriptor& network, const std::string& host) {
    EXPECT_EQ(::setns(network.get(), CLONE_NEWNET), 0);
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", variable((host + "_BUS").c_str()).c_str(), 1);
  }
  const base::Descriptor home_;
};

bool never() {
  return false;
}

bool holds(const std::vector<Browser::Found>& found, const std::string& host, std::uint16_t port) {
  return std::any_of(found.begin(), found.end(),
                     [&](const Browser::Found& each) { return each.host == host && each.port == port; });
}

TEST(Bonjour, whatIsAnnouncedIsFoundByTheOtherSystemsAdapterUntilItIsWithdrawn) {
  OnPhone browse(kBrowse);
  BonjourAnnouncer announcer;
  EXPECT_EQ(announcer.announce("Anna\xE2\x80\x99s desk", 40123, {"id=0123456789abcdef"}), std::nullopt);
  EXPECT_NE(browse.waitFor("=;", "desk.local;10.9.0.1;40123;"), "");
  const auto found = [] {
    const At phone("PHONE");
    return platform::AvahiBrowser().find("0123456789abcdef", 20s, never);
  }();
  EXPECT_TRUE(holds(found, "10.9.0.1", 40123));
  // A second announcement takes the place of the first.
  EXPECT_EQ(announcer.announce("Other name", 40124, {}), std::nullopt);
  EXPECT_NE(browse.waitFor("-;", "Anna"), "");
  EXPECT_NE(browse.waitFor("=;", ";40124;"), "");
  announcer.withdraw();
  EXPECT_NE(browse.waitFor("-;", "Other\\032name"), "");
}

TEST(Bonjour, recordsArriveWholeWithTheirSignsAndAtTheirLongest) {
  OnPhone browse(kBrowse);
  BonjourAnnouncer announcer;
  const std::string longest = "long=" + std::string(250, 'x');
  EXPECT_EQ(announcer.announce("records", 40130, {"id=a=b==", "flag", "empty=", longest}), std::nullopt);
  const auto found = browse.waitFor("=;", ";40130;");
  for (const std::string& record : {std::string("id=a=b=="), std::string("flag"), std::string("empty="), longest})
    EXPECT_NE(found.find('"' + record + '"'), std::string::npos) << record << " is not in " << found;
  const auto places = [] {
    const At phone("PHONE");
    return platform::AvahiBrowser().find("a=b==", 20s, never);
  }();
  EXPECT_TRUE(holds(places, "10.9.0.1", 40130));
  for (const std::string& record : {longest + "x", std::string("=value"), std::string(), std::string("k\xC3\xA4y=1")}) {
    EXPECT_EQ(announcer.announce("records", 40131, {record}),
              "This computer is not announced on the local network, because what it would say about itself does not "
              "fit. Type the address and the port on the phone.")
        << record;
  }
  EXPECT_NE(browse.waitFor("-;", "records"), "") << "what was announced before is still";
}

TEST(Bonjour, aNameThatIsTakenBecomesAnotherAndALongOneIsCutBetweenCharacters) {
  OnPhone taken("avahi-publish --service desk _sorvane._tcp 1");
  EXPECT_NE(taken.waitFor("Established", "desk"), "");
  OnPhone browse(kBrowse);
  EXPECT_NE(browse.waitFor("=;", "phone.local;10.9.0.2;1;"), "");
  BonjourAnnouncer second, longest;
  EXPECT_EQ(second.announce("desk", 40125, {}), std::nullopt);
  EXPECT_NE(browse.waitFor("=;", ";40125;").find("desk\\032\\0352"), std::string::npos);
  EXPECT_EQ(longest.announce(std::string(62, 'n') + "\xE2\x80\x99", 40126, {}), std::nullopt);
  EXPECT_NE(browse.waitFor("=;", ";40126;").find(';' + std::string(62, 'n') + ';'), std::string::npos);
}

TEST(Bonjour, aDaemonThatEndsAndBeginsAgainIsToldAgain) {
  OnPhone browse(kBrowse);
  BonjourAnnouncer announcer(100ms);
  EXPECT_EQ(announcer.announce("steady", 40127, {}), std::nullopt);
  EXPECT_NE(browse.waitFor("=;", ";40127;"), "");
  ASSERT_EQ(avahi("stop"), 0);
  EXPECT_NE(browse.waitFor("-;", "steady"), "");
  // Meanwhile an announcement says what stands in the way, and is made up for.
  BonjourAnnouncer late(100ms);
  EXPECT_EQ(late.announce("late", 40128, {}),
            "This computer is not announced on the local network, because Bonjour cannot be reached. Restart the "
            "computer, or type the address and the port on the phone.");
  EXPECT_TRUE(BonjourBrowser().find("0123456789abcdef", 60s, never).empty()) << "nobody is there to be asked";
  ASSERT_EQ(avahi("start"), 0);
  EXPECT_NE(browse.waitFor("=;", "desk.local;10.9.0.1;4012"), "");
  EXPECT_NE(browse.waitFor("=;", "desk.local;10.9.0.1;4012"), "");
}

TEST(Bonjour, findsTheComputerOfTheIdAmongOthers) {
  OnPhone other("avahi-publish --service studio _sorvane._tcp 40201 id=aaaaaaaaaaaaaaaa");
  ASSERT_NE(other.waitFor("Established", "studio"), "");
  OnPhone browse(kBrowse);
  ASSERT_NE(browse.waitFor("=;", ";40201;"), "");
  platform::AvahiAnnouncer wanted;
  ASSERT_EQ(wanted.announce("studio-2", 40202, {"more=text", "id=bbbb=bbbbbbbbbbb"}), std::nullopt);
  ASSERT_NE(browse.waitFor("=;", ";40202;"), "");
  const At phone("PHONE");
  const auto found = BonjourBrowser().find("bbbb=bbbbbbbbbbb", 20s, never);
  EXPECT_TRUE(holds(found, "10.9.0.1", 40202));
  for (const auto& place : found) {
    EXPECT_EQ(place.port, 40202);
    // An address of one link names the link.
    EXPECT_TRUE(!place.host.starts_with("fe80:") || place.host.ends_with("%cable0")) << place.host;
  }
  EXPECT_TRUE(holds(BonjourBrowser().find("aaaaaaaaaaaaaaaa", 20s, never), "10.9.0.2", 40201));

  // A part of an id is another.
  EXPECT_TRUE(BonjourBrowser().find("bbbb", 1s, never).empty());
  const auto began = std::chrono::steady_clock::now();
  EXPECT_TRUE(BonjourBrowser().find("cccccccccccccccc", 60s, [] { return true; }).empty());
  EXPECT_LT(std::chrono::steady_clock::now() - began, 30s) << "it goes on although it was stopped";
}

}  // namespace
}  // namespace sorvane::test

int main(int argc, char** argv) {
  if (sorvane::test::variable("DESK_BUS").empty()) {
    std::puts("skipped: begun without tests/support/with-two-hosts");
    return 77;
  }
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", sorvane::test::variable("DESK_BUS").c_str(), 1);
  ::setenv("AVAHI_COMPAT_NOWARN", "1", 1);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
