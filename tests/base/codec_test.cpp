#include "base/codec.h"

#include <gtest/gtest.h>

#include "support/corpus.h"

namespace sorvane::base {
namespace {

/// The corpus writes control characters as \n, \r and \xNN.
std::string unescaped(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out += text[i];
    } else if (text[++i] == 'n') {
      out += '\n';
    } else if (text[i] == 'r') {
      out += '\r';
    } else if (text[i] == 'x') {
      out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    }
  }
  return out;
}

TEST(Codec, publishedVectorsEncodeAndDecodeExactly) {
  int cases = 0;
  for (const auto& row : test::tableOfFile(test::corpus("base_n/rfc4648_vectors.tsv"))) {
    const auto bytes = parseHex(row[1]);
    ASSERT_TRUE(bytes) << row[1];
    if (row[0] == "base64") {
      EXPECT_EQ(base64(*bytes), row[2]);
      EXPECT_EQ(parseBase64(row[2]), bytes) << row[2];
    } else if (row[0] == "base64url-nopad") {
      EXPECT_EQ(base64Url(*bytes), row[2]);
    } else if (row[0] == "base16") {
      EXPECT_TRUE(hexUpper(*bytes) == row[2] || hexLower(*bytes) == row[2]) << row[2];
      EXPECT_EQ(parseHex(row[2]), bytes);
    } else {
      continue;
    }
    ++cases;
  }
  EXPECT_EQ(cases, 54 + 47 + 54);
}

TEST(Codec, whatIsNotCanonicalIsRefused) {
  int cases = 0;
  for (const auto& row : test::tableOfFile(test::corpus("base_n/invalid.tsv"))) {
    if (row[0] == "base64") {
      EXPECT_EQ(parseBase64(unescaped(row[1])), std::nullopt) << row[1] << ": " << row[2];
    } else if (row[0] == "base16") {
      EXPECT_EQ(parseHex(unescaped(row[1])), std::nullopt) << row[1] << ": " << row[2];
    } else {
      continue;
    }
    ++cases;
  }
  EXPECT_EQ(cases, 17 + 11);
}

TEST(Codec, percentEncodingLeavesUnreservedCharactersOnly) {
  EXPECT_EQ(percentEncode("aZ0-._~ /+%\xC3\xA9"), "aZ0-._~%20%2F%2B%25%C3%A9");
}

}  // namespace
}  // namespace sorvane::base
