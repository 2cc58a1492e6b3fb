// Looking for a computer over two real Avahis on one cable; the program that is looked for publishes on the other host.
#include "platform/linux/avahi_browser.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/on_phone.h"

namespace sorvane::test {
namespace {

using namespace std::chrono_literals;
using platform::AvahiBrowser;

bool never() {
  return false;
}

TEST(AvahiBrowser, findsTheComputerOfTheIdAmongOthers) {
  OnPhone other("avahi-publish --service studio _sorvane._tcp 40201 id=aaaaaaaaaaaaaaaa");
  OnPhone wanted("avahi-publish --service studio-2 _sorvane._tcp 40202 more=text id=bbbbbbbbbbbbbbbb");
  ASSERT_NE(other.waitFor("Established", "studio"), "");
  ASSERT_NE(wanted.waitFor("Established", "studio-2"), "");
  AvahiBrowser browser;
  const auto found = browser.find("bbbbbbbbbbbbbbbb", 20s, never);
  ASSERT_FALSE(found.empty());
  for (const auto& place : found) EXPECT_EQ(place.port, 40202);
  // Every way that is offered can be connected to: an address of one link names the link.
  for (const auto& place : found)
    EXPECT_EQ(place.host.starts_with("fe80:"), place.host.find('%') != std::string::npos) << place.host;
  EXPECT_TRUE(std::any_of(found.begin(), found.end(), [](const auto& place) { return place.host == "10.9.0.2"; }));

  // A part of an id is another.
  EXPECT_TRUE(browser.find("bbbbbbbbbbbbbbb", 1s, never).empty());
  const auto began = std::chrono::steady_clock::now();
  EXPECT_TRUE(browser.find("cccccccccccccccc", 60s, [] { return true; }).empty());
  EXPECT_LT(std::chrono::steady_clock::now() - began, 30s) << "it goes on although it was stopped";
}

TEST(AvahiBrowser, findsNothingWithoutABus) {
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere/bus", 1);
  EXPECT_TRUE(AvahiBrowser().find("bbbbbbbbbbbbbbbb", 60s, never).empty());
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", variable("DESK_BUS").c_str(), 1);
}

}  // namespace
}  // namespace sorvane::test
