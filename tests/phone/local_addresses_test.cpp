#include "phone/local_addresses.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstring>
#include <deque>

namespace sorvane::phone {
namespace {

sockaddr_storage addressOf(const std::string& text) {
  sockaddr_storage storage{};
  sockaddr_in four{};
  sockaddr_in6 six{};
  four.sin_family = AF_INET;
  six.sin6_family = AF_INET6;
  four.sin_port = six.sin6_port = htons(4711);
  if (::inet_pton(AF_INET, text.c_str(), &four.sin_addr) == 1)
    std::memcpy(&storage, &four, sizeof four);
  else if (::inet_pton(AF_INET6, text.c_str(), &six.sin6_addr) == 1)
    std::memcpy(&storage, &six, sizeof six);
  else
    ADD_FAILURE() << text;
  return storage;
}

std::string sourceOf(const std::string& text) {
  const sockaddr_storage address = addressOf(text);
  return sourceNetwork(reinterpret_cast<const sockaddr&>(address));
}

TEST(LocalAddresses, aSourceIsWhatItsOwnerHasAllOf) {
  struct Case {
    const char *one, *other;
    bool areSame;
  };
  for (const Case& each : {
           Case{"127.0.0.1", "127.255.255.254", true},
           Case{"127.0.0.1", "::ffff:127.9.9.9", true},
           Case{"127.0.0.1", "126.255.255.255", false},
           Case{"127.0.0.1", "128.0.0.1", false},
           Case{"192.0.2.7", "::ffff:192.0.2.7", true},
           Case{"192.0.2.7", "192.0.2.8", false},
           Case{"::ffff:192.0.2.7", "::ffff:192.0.2.8", false},
           Case{"2001:db8::1", "2001:db8::ffff:ffff:ffff:ffff", true},
           Case{"2001:db8::1", "2001:db8:0:1::1", false},
           Case{"2001:db8:0:ff00::1", "2001:db8:0:ff01::1", false},
           Case{"::1", "127.0.0.1", false},
       }) {
    EXPECT_EQ(sourceOf(each.one) == sourceOf(each.other), each.areSame) << each.one << " and " << each.other;
    EXPECT_FALSE(sourceOf(each.one).empty()) << each.one;
  }
  const sockaddr other{};
  EXPECT_EQ(sourceNetwork(other), "") << "of a family that no link comes over";
}

/// Interfaces as the system lists them.
class Interfaces {
 public:
  Interfaces& add(const std::string& address, unsigned flags = IFF_UP) {
    storages_.push_back(addressOf(address));
    return add(reinterpret_cast<sockaddr*>(&storages_.back()), flags);
  }
  Interfaces& add(sockaddr* address, unsigned flags) {
    ifaddrs one{};
    one.ifa_addr = address;
    one.ifa_flags = flags;
    list_.push_back(one);
    if (list_.size() > 1) list_[list_.size() - 2].ifa_next = &list_.back();
    return *this;
  }
  std::vector<std::string> addresses() const { return addressesIn(list_.empty() ? nullptr : &list_.front()); }

 private:
  std::deque<sockaddr_storage> storages_;
  std::deque<ifaddrs> list_;
};

TEST(LocalAddresses, areThoseByWhichOthersGetHere) {
  using Texts = std::vector<std::string>;
  EXPECT_EQ(Interfaces().addresses(), Texts{});
  Interfaces away;
  away.add("127.0.0.1", IFF_UP | IFF_LOOPBACK).add("::1", IFF_UP | IFF_LOOPBACK).add("192.0.2.1", 0);
  away.add("169.254.1.2").add("fe80::1").add("127.0.0.9").add("::1").add(nullptr, IFF_UP);
  EXPECT_EQ(away.addresses(), Texts{}) << "neither loopback nor link-local nor what is down";
  away.add("2001:db8::1").add("192.0.2.7").add("192.0.2.7");
  EXPECT_EQ(away.addresses(), (Texts{"192.0.2.7", "2001:db8::1"}));
  for (int i = 0; i < 9; ++i) away.add("198.51.100." + std::to_string(i));
  EXPECT_EQ(away.addresses().size(), kMostAddresses);
}

}  // namespace
}  // namespace sorvane::phone
