#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <tuple>

#include "base/codec.h"
#include "crypto/aead.h"
#include "crypto/derivation.h"
#include "crypto/digest.h"
#include "crypto/mac.h"
#include "support/corpus.h"

namespace sorvane::crypto {
namespace {

using base::Bytes;

Bytes bytesOfHex(const nlohmann::json& text) {
  return *base::parseHex(text.get<std::string>());
}

using Seal = decltype(&seal);
using Open = decltype(&open);
constexpr struct Cipher {
  const char* file;
  Seal seal;
  Open open;
  int valid, invalid, otherSizes;
} kCiphers[] = {
    // Some vectors are of key, nonce or tag sizes that a box does not have.
    {"wycheproof/aes_gcm_test.json", seal, open, 39, 27, 250},
    {"wycheproof/chacha20_poly1305_test.json", sealChaCha, openChaCha, 256, 60, 9},
};

TEST(Aead, opensWhatThePublishedVectorsSealAndRefusesWhatTheyAlter) {
  for (const Cipher& cipher : kCiphers) {
    const auto suite = nlohmann::json::parse(test::textOfFile(test::corpus(cipher.file)));
    int valid = 0, invalid = 0, otherSizes = 0;
    for (const auto& group : suite["testGroups"]) {
      for (const auto& vector : group["tests"]) {
        if (group["keySize"] != 256 || group["ivSize"] != 96 || group["tagSize"] != 128) {
          ++otherSizes;
          continue;
        }
        const auto key = SymmetricKey::fromBytes(bytesOfHex(vector["key"]));
        ASSERT_TRUE(key);
        Bytes box = bytesOfHex(vector["iv"]);
        for (const char* piece : {"ct", "tag"}) {
          const Bytes more = bytesOfHex(vector[piece]);
          box.insert(box.end(), more.begin(), more.end());
        }
        const Bytes aad = bytesOfHex(vector["aad"]);
        const auto plain = cipher.open(*key, box, base::textOf(aad));
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
    EXPECT_EQ(std::tie(valid, invalid, otherSizes), std::tie(cipher.valid, cipher.invalid, cipher.otherSizes));
  }
}

TEST(Aead, anyChangedBitCutOrForeignWordIsRefused) {
  const SymmetricKey key = SymmetricKey::random(), other = SymmetricKey::random();
  for (const Cipher& cipher : kCiphers) {
    const Bytes box = cipher.seal(key, base::bytesOf("a made-up value"), "file.v1");
    ASSERT_EQ(cipher.open(key, box, "file.v1")->view(), "a made-up value");
    for (std::size_t bit = 0; bit < box.size() * 8; ++bit) {
      Bytes altered = box;
      altered[bit / 8] = static_cast<std::uint8_t>(altered[bit / 8] ^ (1U << bit % 8));
      EXPECT_FALSE(cipher.open(key, altered, "file.v1")) << bit;
    }
    for (std::size_t size = 0; size < box.size(); ++size) {
      EXPECT_FALSE(cipher.open(key, {box.data(), size}, "file.v1")) << size;
    }
    EXPECT_FALSE(cipher.open(key, box, "file.v2"));
    EXPECT_FALSE(cipher.open(other, box, "file.v1"));
    EXPECT_NE(cipher.seal(key, {}, ""), cipher.seal(key, {}, ""));
    EXPECT_EQ(cipher.open(key, cipher.seal(key, {}, ""), "")->size(), 0U);
  }
  EXPECT_FALSE(openChaCha(key, seal(key, {}, ""), ""));
}

TEST(Digest, followsThePublishedExamples) {  // FIPS 180-4 examples
  EXPECT_EQ(sha256Hex(base::bytesOf("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(sha256Hex({}), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(Digest, isTheSameInPieces) {
  const std::string text(1000, 'x');
  for (const std::size_t piece : {1U, 63U, 64U, 65U, 1000U}) {
    Sha256 digest;
    for (std::size_t at = 0; at < text.size(); at += piece) digest.update(base::bytesOf(text.substr(at, piece)));
    digest.update({});
    EXPECT_EQ(digest.finish(), sha256(base::bytesOf(text))) << piece;
  }
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
  vectors("wycheproof/hmac_sha256_test.json", [](const auto& vector) {
    // A shorter tag is the beginning of the whole one.
    const std::string tag = vector["tag"].template get<std::string>();
    const std::string whole = base::hexLower(hmacSha256(bytesOfHex(vector["key"]), bytesOfHex(vector["msg"])));
    EXPECT_EQ(whole.substr(0, tag.size()) == tag, vector["result"] == "valid") << vector["tcId"];
  });
  EXPECT_EQ(cases, 86 + 60 + 174);
}

}  // namespace
}  // namespace sorvane::crypto
