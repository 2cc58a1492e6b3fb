#include "crypto/agreement.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/codec.h"
#include "support/corpus.h"

namespace sorvane::crypto {
namespace {

AgreementPublicKey publicKeyOf(const base::Bytes& bytes) {
  AgreementPublicKey key{};
  EXPECT_EQ(bytes.size(), key.size());
  std::copy_n(bytes.begin(), key.size(), key.begin());
  return key;
}

// The rule for vectors called acceptable: the curve's twist and encodings above the field's prime are taken as RFC 7748
// takes them; a result of nothing but zeros is refused.
TEST(AgreementKey, sharesWhatThePublishedVectorsSayAndRefusesAnAllZeroSecret) {
  const auto suite = nlohmann::json::parse(test::textOfFile(test::corpus("wycheproof/x25519_test.json")));
  int shared = 0, refused = 0;
  for (const auto& group : suite["testGroups"]) {
    for (const auto& vector : group["tests"]) {
      const auto key = AgreementKey::fromBytes(*base::parseHex(vector["private"].get<std::string>()));
      ASSERT_TRUE(key);
      const std::string expected = vector["shared"].get<std::string>();
      const auto secret = key->agree(publicKeyOf(*base::parseHex(vector["public"].get<std::string>())));
      if (expected.find_first_not_of('0') == std::string::npos) {
        EXPECT_EQ(vector["result"], "acceptable");
        EXPECT_FALSE(secret) << vector["tcId"];
        ++refused;
      } else {
        ASSERT_TRUE(secret) << vector["tcId"];
        EXPECT_EQ(base::hexLower(secret->bytes()), expected) << vector["tcId"];
        ++shared;
      }
    }
  }
  EXPECT_EQ(shared, 487);
  EXPECT_EQ(refused, 31);
}

TEST(AgreementKey, givesBothSidesTheSameSecret) {
  const AgreementKey one = AgreementKey::random(), other = AgreementKey::random();
  const auto here = one.agree(other.publicKey()), there = other.clone().agree(one.publicKey());
  ASSERT_TRUE(here && there);
  EXPECT_EQ(base::hexLower(here->bytes()), base::hexLower(there->bytes()));
  EXPECT_EQ(AgreementKey::fromBytes(one.bytes())->publicKey(), one.publicKey());
  EXPECT_NE(one.publicKey(), other.publicKey());
  for (const std::size_t size : {0U, 31U, 33U}) EXPECT_FALSE(AgreementKey::fromBytes(base::Bytes(size, 1)));
}

}  // namespace
}  // namespace sorvane::crypto
