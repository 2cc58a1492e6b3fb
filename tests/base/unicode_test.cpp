#include "base/unicode.h"

#include <gtest/gtest.h>

#include <sstream>

#include "support/corpus.h"

namespace sorvane::base {
namespace {

std::string utf8(char32_t c) {
  const auto unit = [](char32_t bits) { return static_cast<char>(static_cast<unsigned char>(bits)); };
  if (c < 0x80) return {unit(c)};
  if (c < 0x800) return {unit(0xC0 | c >> 6), unit(0x80 | (c & 63))};
  if (c < 0x10000) return {unit(0xE0 | c >> 12), unit(0x80 | (c >> 6 & 63)), unit(0x80 | (c & 63))};
  return {unit(0xF0 | c >> 18), unit(0x80 | (c >> 12 & 63)), unit(0x80 | (c >> 6 & 63)), unit(0x80 | (c & 63))};
}

std::string textOfCodes(const std::string& codes) {
  std::istringstream words(codes);
  std::string out;
  for (std::string word; words >> word;) out += utf8(static_cast<char32_t>(std::stoul(word, nullptr, 16)));
  return out;
}

TEST(Unicode, normalisationFormCFollowsThePublishedTest) {
  std::istringstream lines(test::textOfFile(test::corpus("unicode/NormalizationTest.txt")));
  int cases = 0;
  for (std::string line; std::getline(lines, line); ++cases) {
    std::istringstream parts(line);
    std::string columns[5];
    for (std::string& part : columns) {
      std::getline(parts, part, ';');
      part = textOfCodes(part);
    }
    for (int i = 0; i < 3; ++i) ASSERT_EQ(nfc(columns[i]), columns[1]) << line;
    for (int i = 3; i < 5; ++i) ASSERT_EQ(nfc(columns[i]), columns[3]) << line;
    for (int i = 0; i < 3; ++i) ASSERT_EQ(nfcOfSecret(columns[i])->view(), columns[1]) << line;
  }
  EXPECT_FALSE(nfcOfSecret("a\xff"));
  EXPECT_TRUE(nfcOfSecret("")->empty());
  EXPECT_EQ(cases, 19074);
}

TEST(Unicode, everyScalarValueComesBackAndNothingElseIsAccepted) {
  for (char32_t c = 0; c <= 0x10FFFF; ++c) {
    const std::string text = utf8(c);
    const Decoded decoded = decodeUtf8(text);
    const bool surrogate = c >= 0xD800 && c <= 0xDFFF;
    ASSERT_EQ(decoded.valid, !surrogate) << std::hex << static_cast<std::uint32_t>(c);
    if (!surrogate) {
      ASSERT_TRUE(decoded.character == c && decoded.size == text.size());
    }
  }
  for (const std::string_view bad : {"\xC0\x80", "\xC1\xBF", "\xE0\x80\x80", "\xF0\x80\x80\x80", "\xF4\x90\x80\x80",
                                     "\xF5\x80\x80\x80", "\xFF", "\x80", "\xE2\x82", "\xF0\x9F\x92"}) {
    EXPECT_FALSE(isUtf8(bad));
    EXPECT_TRUE(isUtf8(repairedUtf8(bad)));
  }
}

TEST(Unicode, eachMaximalIllFormedPartBecomesOneReplacement) {
  const std::string mark = "\xEF\xBF\xBD";
  EXPECT_EQ(repairedUtf8("a\xF0\x90\x80"
                         "b"),
            "a" + mark + "b");                                  // a sequence cut short
  EXPECT_EQ(repairedUtf8("\xE0\x80\x80"), mark + mark + mark);  // overlong: E0 80 starts nothing
  EXPECT_EQ(repairedUtf8("\xED\xA0\x80"), mark + mark + mark);  // surrogate
  EXPECT_EQ(repairedUtf8("\xC3\xC3\xA9"), mark + "\xC3\xA9");
}

TEST(Unicode, aPrefixNeverEndsInsideACharacter) {
  const std::string text =
      "a\xE2\x80\x99"
      "b";
  const std::string_view expected[] = {"", "a", "a", "a", "a\xE2\x80\x99", text, text};
  for (std::size_t limit = 0; limit < std::size(expected); ++limit) {
    EXPECT_EQ(prefixOfWholeCharacters(text, limit), expected[limit]) << limit;
  }
}

TEST(Unicode, trimmingTakesEveryWhiteSpaceOfUnicodeAndNoMore) {
  EXPECT_EQ(trimmed("\xC2\xA0\xE3\x80\x80 \t\nname\xE2\x80\xA8\r\n"), "name");
  EXPECT_EQ(trimmed("\xE2\x80\x8Bname"), "\xE2\x80\x8Bname");  // zero-width space is no white space
  EXPECT_EQ(trimmed(" \xE2\x80\x83 "), "");
  EXPECT_EQ(trimmed("\x80 "), "\x80");
}

TEST(Unicode, shownTextCannotMoveTheCursorOrReorderWhatIsRead) {
  EXPECT_EQ(escapedForDisplay("a\x1b[2Jb\r\n\t"), "a\\x1b[2Jb\\r\\n\\t");
  EXPECT_EQ(escapedForDisplay("x\xE2\x80\xAEy\xC2\x85z\xE2\x80\x8B"), "x\\u{202e}y\\u{85}z\\u{200b}");
  EXPECT_EQ(escapedForDisplay("back\\slash \xC3\xA9 \xFF"), "back\\\\slash \xC3\xA9 \\xff");
}

TEST(Unicode, countsTheCharactersThatAPersonSees) {
  const std::pair<std::string_view, std::size_t> cases[] = {{"", 0},
                                                            {"abc", 3},
                                                            {"e\u0301", 1},
                                                            {"\r\n", 1},
                                                            {"\U0001F1E9\U0001F1EA\U0001F1EB\U0001F1F7", 2},
                                                            {"\u1112\u1161\u11ab", 1},
                                                            {"\U0001F468\u200D\U0001F469\u200D\U0001F467", 1},
                                                            {"a\xff\xfe"
                                                             "b",
                                                             4}};
  for (const auto& [text, count] : cases) EXPECT_EQ(characterCount(text), count) << text;
}

}  // namespace
}  // namespace sorvane::base
