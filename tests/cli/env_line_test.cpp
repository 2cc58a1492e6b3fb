#include "cli/env_line.h"

#include <gtest/gtest.h>

#include <random>

#include "vault/env_value.h"

namespace sorvane::cli {
namespace {

TEST(EnvLine, readsBackEverythingThatTheVaultWrites) {
  std::vector<std::string> values{"",           "plain", "a=b", "#no comment", "-----BEGIN\nmade up\r\n\tEND\n",
                                  "'\"$`\\\\n", "ünï"};
  std::mt19937 random(11);
  const std::string_view alphabet = "ab=\"'\\$`#\n\r\t n{}";
  for (int i = 0; i < 5000; ++i) {
    std::string& value = values.emplace_back();
    for (std::size_t size = random() % 12; value.size() < size;) value += alphabet[random() % alphabet.size()];
  }
  for (const std::string& value : values) {
    base::SecretText line;
    vault::appendEnvLine(line, "NAME", value);
    const auto read = decodeEnvLine(line.view());
    ASSERT_TRUE(read) << line.view();
    EXPECT_EQ(read->name, "NAME");
    EXPECT_EQ(read->value.view(), value);
  }
}

TEST(EnvLine, refusesWhatTheVaultNeverWrites) {
  for (const char* const line : {"", "NAME", "=value", "# NAME=value", "A=\"", "A=\"open", "A=open\"", "A=\"a\"b\"",
                                 "A=two words", "A=\"a\\\"", "A=\"\\x41\"", "A='b'", "A=a\\b"}) {
    EXPECT_FALSE(decodeEnvLine(line)) << line;
  }
}

}  // namespace
}  // namespace sorvane::cli
