#include "approver/pair_link.h"

#include <gtest/gtest.h>

namespace sorvane::test {
namespace {

using approver::Place;
using approver::PlaceError;

// A key whose base64 has both characters that the two alphabets differ in.
const std::string kKey = "-_" + std::string(40, 'A') + "8";
const std::string kGood =
    "sorvane://pair?v=4&key=" + kKey + "&host=192.0.2.7,2001:db8::7&port=41873&code=ABCD-EFGH-IJKL-MN27";

std::string with(const std::string& from, const std::string& to) {
  std::string link = kGood;
  return link.replace(link.find(from), from.size(), to);
}

TEST(PairLink, isReadHoweverItWasCopied) {
  for (const std::string& text : {kGood, "\n  " + kGood + "\r\n", with("ABCD-EFGH", "abcdefgh"),
                                  with("v=4&", "v=4&new=thing&"), with("2001:db8::7", "%5B2001%3adb8::7%5D")}) {
    const auto link = approver::readPairLink(text);
    EXPECT_EQ(link.computer[0], 0xFB) << text;
    EXPECT_EQ(link.code.view(), "ABCDEFGHIJKLMN27") << text;
    EXPECT_EQ(link.places, (std::vector<Place>{{"192.0.2.7", 41873}, {"2001:db8::7", 41873}})) << text;
  }
}

TEST(PairLink, isRefusedWhenItIsNotWhole) {
  for (std::size_t size = 0; size < kGood.size(); ++size)
    EXPECT_THROW(approver::readPairLink(kGood.substr(0, size)), PlaceError) << size;
  for (const std::string& text :
       {with("sorvane:", "Sorvane:"), with("v=4", "v=5"), with("v=4", "v=4&v=4"), with("&key=", "&key=A"),
        with(kKey, kKey + "="), with(kKey, "+/" + std::string(40, 'A') + "8"),
        with(kKey, "-_" + std::string(40, 'A') + "9"), with("port=41873", "port=0"), with("port=41873", "port=65536"),
        with("port=41873", "port=+1"), with("192.0.2.7", ""), with("192.0.2.7", "a b"), with("192.0.2.7", "%0a"),
        with("192.0.2.7", "%4"), with("192.0.2.7", "-x"), with("ABCD", "ABC1"), with("MN27", "MN277"),
        with("&code", "&Code"), kGood + std::string(approver::kMostLinkBytes, '-')})
    EXPECT_THROW(approver::readPairLink(text), PlaceError) << text;
}

TEST(PairLink, addressesTypedByHandComeBackTheSame) {
  for (const char* text : {"192.0.2.7:1", "[2001:db8::7]:65535", "[fe80::1%eth0]:7", "studio.local:41873"})
    EXPECT_EQ(approver::textOf(approver::readPlace(text)), text);
  for (const char* text :
       {"", "studio", "studio:", ":7", "2001:db8::7:1", "[2001:db8::7]", "a:b:7", "studio:70000", "[]:7"})
    EXPECT_THROW(approver::readPlace(text), PlaceError) << text;
}

}  // namespace
}  // namespace sorvane::test
