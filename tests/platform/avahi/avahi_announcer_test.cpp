// The announcement over two real Avahis on one cable; tests/support/with-two-hosts makes them and starts this program.
#include "platform/linux/avahi_announcer.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <string>

#include "support/on_phone.h"

namespace sorvane::test {
namespace {

using platform::AvahiAnnouncer;

const std::string kBrowse = "stdbuf -oL avahi-browse --parsable --resolve _sorvane._tcp";

int avahi(const std::string& what) {
  return std::system((variable("SORVANE_TWO_HOSTS") + " --avahi " + what).c_str());
}

TEST(AvahiAnnouncer, theOtherHostSeesTheServiceItsPortAndItsRecordsUntilItIsWithdrawn) {
  OnPhone browse(kBrowse);
  AvahiAnnouncer announcer;
  EXPECT_EQ(announcer.announce("Anna\xE2\x80\x99s desk", 40123, {"id=0123456789abcdef"}), std::nullopt);
  const auto found = browse.waitFor("=;", "desk.local;10.9.0.1;40123;");
  EXPECT_NE(found.find("\"id=0123456789abcdef\""), std::string::npos) << found;
  // A second announcement takes the place of the first.
  EXPECT_EQ(announcer.announce("Other name", 40124, {}), std::nullopt);
  EXPECT_NE(browse.waitFor("-;", "Anna"), "");
  EXPECT_NE(browse.waitFor("=;", ";40124;"), "");
  announcer.withdraw();
  EXPECT_NE(browse.waitFor("-;", "Other\\032name"), "");
}

TEST(AvahiAnnouncer, aNameThatIsTakenOnTheNetworkOrOnThisComputerBecomesAnother) {
  OnPhone taken("avahi-publish --service desk _sorvane._tcp 1");
  EXPECT_NE(taken.waitFor("Established", "desk"), "");
  OnPhone browse(kBrowse);
  EXPECT_NE(browse.waitFor("=;", "phone.local;10.9.0.2;1;"), "");
  AvahiAnnouncer first, second;
  EXPECT_EQ(first.announce("desk", 40125, {}), std::nullopt);
  EXPECT_NE(browse.waitFor("=;", ";40125;").find("desk\\032\\0352"), std::string::npos);
  EXPECT_EQ(second.announce("desk", 40126, {}), std::nullopt);
  EXPECT_NE(browse.waitFor("=;", ";40126;").find("desk\\032\\0353"), std::string::npos);
}

TEST(AvahiAnnouncer, anAvahiThatEndsAndBeginsAgainAnnouncesAgain) {
  OnPhone browse(kBrowse);
  AvahiAnnouncer announcer;
  EXPECT_EQ(announcer.announce("steady", 40127, {}), std::nullopt);
  EXPECT_NE(browse.waitFor("=;", ";40127;"), "");
  ASSERT_EQ(avahi("stop"), 0);
  EXPECT_NE(browse.waitFor("-;", "steady"), "");
  // Meanwhile an announcement says what stands in the way, and is made up for.
  AvahiAnnouncer late;
  const auto why = late.announce("late", 40128, {});
  EXPECT_EQ(
      why,
      "This computer is not announced on the local network, because Avahi does not run here. Start it (the package "
      "is avahi-daemon), or type the address and the port on the phone.");
  ASSERT_EQ(avahi("start"), 0);
  EXPECT_NE(browse.waitFor("=;", "desk.local;10.9.0.1;4012"), "");
  EXPECT_NE(browse.waitFor("=;", "desk.local;10.9.0.1;4012"), "");
}

TEST(AvahiAnnouncer, withoutABusItSaysSoAndEndsAtOnce) {
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere/bus", 1);
  {
    AvahiAnnouncer announcer;
    EXPECT_NE(announcer.announce("desk", 40129, {}), std::nullopt);
    announcer.withdraw();
    EXPECT_NE(announcer.announce("desk", 40129, {}), std::nullopt);
  }
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", variable("DESK_BUS").c_str(), 1);
}

}  // namespace
}  // namespace sorvane::test

int main(int argc, char** argv) {
  if (sorvane::test::variable("DESK_BUS").empty()) {
    std::puts("skipped: begun without tests/support/with-two-hosts");
    return 77;
  }
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", sorvane::test::variable("DESK_BUS").c_str(), 1);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
