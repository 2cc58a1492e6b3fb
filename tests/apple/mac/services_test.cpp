// Built and run on a Mac only: Bonjour's own daemon and the pasteboard itself. What was on the pasteboard before is
// gone afterwards.

#include <gtest/gtest.h>

#include <algorithm>

#include "platform/macos/bonjour_announcer.h"
#include "platform/macos/bonjour_browser.h"
#include "platform/macos/clipboard.h"

namespace sorvane::test {
namespace {

using namespace std::chrono_literals;

TEST(Bonjour, findsWhatThisComputerAnnouncesUntilItIsWithdrawn) {
  platform::BonjourAnnouncer announcer;
  ASSERT_EQ(announcer.announce("sorvane's test", 40123, {"id=0123=456789abcde"}), std::nullopt);
  const auto find = [](std::chrono::milliseconds limit) {
    return platform::BonjourBrowser().find("0123=456789abcde", limit, [] { return false; });
  };
  const auto found = find(10s);
  EXPECT_FALSE(found.empty());
  EXPECT_TRUE(std::all_of(found.begin(), found.end(), [](const auto& place) {
    return place.port == 40123 && (place.host.find('%') != std::string::npos) == place.host.starts_with("fe80:");
  }));
  announcer.withdraw();
  // A goodbye stays remembered for a second (RFC 6762, section 10.1).
  int looks = 0;
  while (!find(1s).empty() && ++looks < 10) {
  }
  EXPECT_LT(looks, 10);
}

TEST(Pasteboard, holdsWhatIsWrittenUntilItIsCleared) {
  platform::PasteboardClipboard clipboard;
  ASSERT_TRUE(clipboard.available());
  for (const std::string& text :
       {std::string("made up"), std::string(4096, 'x'), std::string("caf\xC3\xA9 \xF0\x9F\x94\x91")}) {
    ASSERT_TRUE(clipboard.write(base::SecretText(text)));
    const auto held = clipboard.read();
    ASSERT_TRUE(held.has_value());
    EXPECT_EQ(held->view(), text);
    EXPECT_EQ(clipboard.lastWrite(), agent::StillThere::yes);
  }
  ASSERT_TRUE(platform::PasteboardClipboard().write(base::SecretText("of somebody else")));
  EXPECT_EQ(clipboard.lastWrite(), agent::StillThere::no);
  ASSERT_TRUE(clipboard.write(base::SecretText()));
  EXPECT_FALSE(clipboard.read().has_value());
}

}  // namespace
}  // namespace sorvane::test
