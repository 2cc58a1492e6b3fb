#include "platform/macos/clipboard_text.h"

#include <gtest/gtest.h>

#include <string>

namespace sorvane::test {
namespace {

using platform::clipboardText;
using platform::kMaxClipboardBytes;

TEST(ClipboardText, isWhatIsUtf8AndNeitherEmptyNorTooLong) {
  struct Case {
    std::string held;
    bool isText;
  };
  const std::string whole(kMaxClipboardBytes, 'x');
  const std::vector<Case> cases{
      {"", false},
      {"k", true},
      {"caf\xC3\xA9", true},
      {std::string("a\0b", 3), true},
      {"caf\xE9", false},       // another encoding
      {"\xFF\xFEk\0", false},   // UTF-16 with its mark
      {"cut \xE2\x80", false},  // in the middle of a character
      {"\xED\xA0\x80", false},  // a surrogate
      {whole, true},
      {whole + "x", false},
  };
  for (const auto& each : cases) {
    const auto text = clipboardText(base::bytesOf(each.held));
    ASSERT_EQ(text.has_value(), each.isText) << each.held.size() << " bytes: " << each.held.substr(0, 8);
    EXPECT_TRUE(!text || text->view() == each.held);
  }
  EXPECT_FALSE(clipboardText({}).has_value()) << "a clipboard without text gives no bytes at all";
}

TEST(ClipboardText, isHandedOverWithoutAClosingZeroAndNotAtAllWhenEmpty) {
  const platform::WipedBytes bytes(base::SecretText(std::string("made\0up", 7)));
  ASSERT_EQ(bytes.size, 7U);
  EXPECT_EQ(std::string(static_cast<const char*>(bytes.data), bytes.size), std::string("made\0up", 7));
  platform::WipedBytes::free(bytes.data, bytes.size);
  EXPECT_EQ(platform::WipedBytes(base::SecretText()).data, nullptr);
}

}  // namespace
}  // namespace sorvane::test
