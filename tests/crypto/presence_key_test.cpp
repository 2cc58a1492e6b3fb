#include "crypto/presence_key.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/codec.h"
#include "support/corpus.h"

namespace sorvane::crypto {
namespace {

using base::Bytes;

// None of these vectors is called acceptable: BER in place of DER, bytes behind the signature and numbers out of range
// are all invalid.
TEST(PresenceKey, verifiesWhatThePublishedVectorsSignAndNothingElse) {
  const auto suite =
      nlohmann::json::parse(test::textOfFile(test::corpus("wycheproof/ecdsa_secp256r1_sha256_test.json")));
  int valid = 0, invalid = 0;
  for (const auto& group : suite["testGroups"]) {
    const Bytes point = *base::parseHex(group["publicKey"]["uncompressed"].get<std::string>());
    PresencePublicKey key{};
    ASSERT_EQ(point.size(), key.size());
    std::copy(point.begin(), point.end(), key.begin());
    for (const auto& vector : group["tests"]) {
      const bool verified = verifyPresence(key, *base::parseHex(vector["msg"].get<std::string>()),
                                           *base::parseHex(vector["sig"].get<std::string>()));
      EXPECT_EQ(verified, vector["result"] == "valid") << vector["tcId"] << vector["comment"];
      ++(vector["result"] == "valid" ? valid : invalid);
    }
  }
  EXPECT_EQ(valid, 174);
  EXPECT_EQ(invalid, 310);
}

TEST(PresenceKey, signsWhatOnlyItsOwnPublicKeyVerifies) {
  const PresenceKey key = PresenceKey::random(), other = PresenceKey::random();
  const auto message = base::bytesOf("a made-up digest");
  const Bytes signature = PresenceKey::fromBytes(key.bytes())->sign(message);
  ASSERT_TRUE(verifyPresence(key.publicKey(), message, signature));
  EXPECT_FALSE(verifyPresence(other.publicKey(), message, signature));
  EXPECT_FALSE(verifyPresence(key.publicKey(), message.first(message.size() - 1), signature));
  EXPECT_TRUE(verifyPresence(key.publicKey(), {}, key.sign({})));
  for (std::size_t bit = 0; bit < signature.size() * 8; ++bit) {
    Bytes altered = signature;
    altered[bit / 8] = static_cast<std::uint8_t>(altered[bit / 8] ^ (1U << bit % 8));
    EXPECT_FALSE(verifyPresence(key.publicKey(), message, altered)) << bit;
  }
  // No point of the curve, the point at infinity, and other forms of the right one.
  for (const int first : {0x00, 0x02, 0x03, 0x06, 0x07, 0x05}) {
    PresencePublicKey foreign = key.publicKey();
    foreign[0] = static_cast<std::uint8_t>(first);
    EXPECT_FALSE(verifyPresence(foreign, message, signature)) << first;
  }
  PresencePublicKey offCurve = key.publicKey();
  offCurve[64] = static_cast<std::uint8_t>(offCurve[64] ^ 1);
  EXPECT_FALSE(verifyPresence(offCurve, message, signature));
  EXPECT_FALSE(verifyPresence({}, message, signature));
}

TEST(PresenceKey, isAScalarBelowTheOrder) {
  const std::string order = "ffffffff00000000ffffffffffffffffbce6faada7179e84f3b9cac2fc632551";
  const auto keyOf = [](const std::string& hex) { return PresenceKey::fromBytes(*base::parseHex(hex)); };
  EXPECT_FALSE(keyOf(std::string(64, '0')));
  EXPECT_FALSE(keyOf(order));
  EXPECT_FALSE(keyOf(std::string(64, 'f')));
  EXPECT_FALSE(keyOf(std::string(62, '1')));
  const auto largest = keyOf(order.substr(0, 63) + "0"), smallest = keyOf(std::string(63, '0') + "1");
  ASSERT_TRUE(largest && smallest);
  // The scalars 1 and -1: the base point (FIPS 186-4 D.1.2.3) and its negative have the same first coordinate.
  EXPECT_EQ(base::hexLower(smallest->publicKey()).substr(2, 64),
            "6b17d1f2e12c4247f8bce6e563a440f277037d812deb33a0f4a13945d898c296");
  EXPECT_TRUE(
      std::equal(smallest->publicKey().begin(), smallest->publicKey().begin() + 33, largest->publicKey().begin()));
  EXPECT_TRUE(verifyPresence(largest->publicKey(), {}, largest->sign({})));
}

}  // namespace
}  // namespace sorvane::crypto
