#include "platform/macos/notice_gate.h"

#include <gtest/gtest.h>

namespace sorvane::test {
namespace {

using platform::Notice;
using platform::NoticeGate;
using Next = NoticeGate::Next;

TEST(NoticeGate, asksOnceAndKeepsTheYoungestMeanwhile) {
  NoticeGate gate;
  EXPECT_EQ(gate.take({"0", "first"}), Next::ask);
  for (int i = 1; i < 20; ++i) EXPECT_EQ(gate.take({std::to_string(i), ""}), Next::wait);
  std::string order;
  for (const Notice& notice : gate.answered()) order += notice.title + ' ';
  EXPECT_EQ(order, "4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 ");
  EXPECT_EQ(gate.take({"20", ""}), Next::show);
  EXPECT_TRUE(gate.answered().empty()) << "what was shown is not kept, and nothing is shown twice";
}

TEST(NoticeGate, givesTheSystemTextThatItTakes) {
  const Notice notice(std::string("a\0b", 3), "an agent\xE2\x80\x99s \xFF name");
  EXPECT_EQ(notice.title, "a b");
  EXPECT_EQ(notice.body, "an agent\xE2\x80\x99s \xEF\xBF\xBD name");
}

}  // namespace
}  // namespace sorvane::test
