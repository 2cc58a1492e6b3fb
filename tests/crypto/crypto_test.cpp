#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "base/codec.h"
#include "crypto/aead.h"
#include "crypto/derivation.h"
#include "crypto/digest.h"
#include "support/corpus.h"

namespace sorvane::crypto {
namespace {

using base::Bytes;

Bytes bytesOfHex(const nlohmann::json& text) {
  return *base::parseHex(text.get<std::string>());
}

TEST(Aead, opensWhatThePublishedVectorsSealAndRefusesWhatTheyAlter) {
  const auto suite = nlohmann::json::parse(test::textOfFile(test::corpus("wycheproof/aes_gcm_test.json")));
  int valid = 0, invalid = 0;
  for (const auto& group : suite["testGroups"]) {
    if (group["keySize"] != 256 || group["ivSize"] != 96 || group["tagSize"] != 128) continue;
    for (const auto& vector : group["tests"]) {
      const auto key = SymmetricKey::fromBytes(bytesOfHex(vector["key"]));
      ASSERT_TRUE(key);
      Bytes box = bytesOfHex(vector["iv"]);
      for (const char* part : {"ct", "tag"}) {
        const Bytes more = bytesOfHex(vector[part]);
        box.insert(box.end(), more.begin(), more.end());
      }
      const Bytes aad = bytesOfHex(vector["aad"]);
      const auto plain = open(*key, box, base::textOf(aad));
      if (vector["result"] == "valid") {
        ASSERT_TRUE(plain) << vector["tcId"];
        EXPECT_EQ(base::hexLower(plain->bytes()), vector["msg"].get<std::string>());
        ++valid;
      } else {
        EXPECT_FALSE(plain) << vector["tcId"];
        ++invalid;
      }
    }
  }
  EXPECT_EQ(valid + invalid, 66);
  EXPECT_GT(invalid, 10);
}

TEST(Aead, anyChangedBitCutOrForeignWordIsRefused) {
  const SymmetricKey key = SymmetricKey::random(), other = SymmetricKey::random();
  const Bytes box = seal(key, base::bytesOf("a made-up value"), "file.v1");
  ASSERT_EQ(open(key, box, "file.v1")->view(), "a made-up value");
  for (std::size_t bit = 0; bit < box.size() * 8; ++bit) {
    Bytes altered = box;
    altered[bit / 8] = static_cast<std::uint8_t>(altered[bit / 8] ^ (1U << bit % 8));
    EXPECT_FALSE(open(key, altered, "file.v1")) << bit;
  }
  for (std::size_t size = 0; size < box.size(); ++size) EXPECT_FALSE(open(key, {box.data(), size}, "file.v1")) << size;
  EXPECT_FALSE(open(key, box, "file.v2"));
  EXPECT_FALSE(open(other, box, "file.v1"));
}

TEST(Aead, sealsUnderAFreshNonceEachTime) {
  const SymmetricKey key = SymmetricKey::random();
  EXPECT_NE(seal(key, {}, ""), seal(key, {}, ""));
  EXPECT_EQ(open(key, seal(key, {}, ""), "")->size(), 0U);
}

TEST(Digest, followsThePublishedExamples) {  // FIPS 180-4 examples
  EXPECT_EQ(sha256Hex(base::bytesOf("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(sha256Hex({}), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(Derivation, followsThePublishedVectors) {
  int cases = 0;
  const auto vectors = [&](const char* file, const auto& check) {
    const auto suite = nlohmann::json::parse(test::textOfFile(test::corpus(file)));
    for (const auto& group : suite["testGroups"]) {
      for (const auto& vector : group["tests"]) {
        check(vector);
        ++cases;
      }
    }
  };
  vectors("wycheproof/hkdf_sha256_test.json", [](const auto& vector) {
    Bytes out(vector["size"].template get<std::size_t>());
    const auto derive = [&] {
      hkdfSha256(bytesOfHex(vector["ikm"]), bytesOfHex(vector["salt"]), bytesOfHex(vector["info"]), out);
    };
    if (vector["result"] != "valid") {
      EXPECT_THROW(derive(), CryptoFailure) << vector["tcId"];
      return;
    }
    derive();
    EXPECT_EQ(base::hexLower(out), vector["okm"].template get<std::string>()) << vector["tcId"];
  });
  EXPECT_EQ(cases, 86);
  vectors("wycheproof/pbkdf2_hmacsha256_test.json", [](const auto& vector) {
    Bytes out(vector["dkLen"].template get<std::size_t>());
    pbkdf2Sha256(bytesOfHex(vector["password"]), bytesOfHex(vector["salt"]),
                 vector["iterationCount"].template get<std::int64_t>(), out);
    EXPECT_EQ(base::hexLower(out), vector["dk"].template get<std::string>()) << vector["tcId"];
  });
  EXPECT_EQ(cases, 86 + 60);
}

}  // namespace
}  // namespace sorvane::crypto
