#include "crypto/passphrase_key.h"

#include <gtest/gtest.h>

#include "base/codec.h"
#include "base/unicode.h"
#include "support/corpus.h"

namespace sorvane::crypto {
namespace {

using Case = PassphraseKeyError::Case;

std::optional<Case> refusalOf(std::string_view passphrase, std::span<const std::uint8_t> salt,
                              const PassphraseCost& cost) {
  try {
    passphraseKey(passphrase, salt, cost);
  } catch (const PassphraseKeyError& error) {
    return error.kind();
  }
  return std::nullopt;
}

TEST(PassphraseKey, isWhatThePublishedVectorsSayAndRefusesTheOthers) {
  int derived = 0, refused = 0;
  for (const auto& row : test::tableOfFile(test::corpus("argon2/argon2id_vectors.tsv"))) {
    ASSERT_EQ(row.size(), 11U);
    ASSERT_EQ(row[0] + row[1], "argon2id19");
    if (row[4] != "1" || row[7] != "32") continue;
    const PassphraseCost cost{static_cast<std::uint32_t>(std::stoul(row[3])),
                              static_cast<std::uint32_t>(std::stoul(row[2]))};
    const base::Bytes password = *base::parseHex(row[5]), salt = *base::parseHex(row[6]);
    try {
      EXPECT_EQ(base::hexLower(passphraseKeyOfBytes(password, salt, cost).bytes()), row[8]);
      ++derived;
    } catch (const PassphraseKeyError& error) {
      EXPECT_EQ(error.kind(), password.empty() ? Case::invalidPassword : Case::invalidSalt) << row[9] << row[10];
      EXPECT_TRUE(password.empty() || salt.size() != kPassphraseSaltBytes);
      ++refused;
    }
  }
  EXPECT_EQ(derived, 47);
  EXPECT_EQ(refused, 8);
}

TEST(PassphraseKey, isRefusedBeforeItIsComputedOutsideTheBounds) {
  const base::Bytes salt(kPassphraseSaltBytes, 7), shortSalt(15, 7), longSalt(17, 7);
  const struct {
    std::string_view passphrase;
    const base::Bytes& salt;
    PassphraseCost cost;
    std::optional<Case> refusal;
  } cases[] = {
      {"made up", salt, {8, 1}, std::nullopt},
      {"made up", salt, {8, 10}, std::nullopt},
      {"made up", salt, {7, 1}, Case::invalidLength},
      {"made up", salt, {4, 3}, Case::invalidLength},
      {"made up", salt, {1'048'577, 1}, Case::invalidLength},
      {"made up", salt, {UINT32_MAX, 1}, Case::invalidLength},
      {"made up", salt, {8, 0}, Case::invalidLength},
      {"made up", salt, {65536, 11}, Case::invalidLength},
      {"", salt, {8, 1}, Case::invalidPassword},
      {"\xff\xfe", salt, {8, 1}, Case::invalidPassword},
      {"made up", shortSalt, {8, 1}, Case::invalidSalt},
      {"made up", longSalt, {8, 1}, Case::invalidSalt},
  };
  for (const auto& [passphrase, usedSalt, cost, refusal] : cases) {
    EXPECT_EQ(refusalOf(passphrase, usedSalt, cost), refusal) << cost.memoryKiB << " " << cost.iterations;
  }
}

TEST(PassphraseKey, isTheSameForOneTextInEveryUnicodeForm) {
  const base::Bytes salt(kPassphraseSaltBytes, 7);
  const auto keyOf = [&](std::string_view text) { return base::hexLower(passphraseKey(text, salt, {8, 1}).bytes()); };
  EXPECT_EQ(keyOf("caf\u00e9 \u1e69 \uac00"), keyOf("cafe\u0301 s\u0307\u0323 \u1100\u1161"));
  EXPECT_NE(keyOf("caf\u00e9"), keyOf("cafe"));
  // Compatibility characters stay apart: the form is NFC, not NFKC.
  EXPECT_NE(keyOf("\ufb01"), keyOf("fi"));
}

}  // namespace
}  // namespace sorvane::crypto
