#include "phone/frame.h"

#include <gtest/gtest.h>

namespace sorvane::phone {
namespace {

base::Bytes framesOf(const std::vector<std::string>& bodies) {
  base::Bytes all;
  for (const std::string& body : bodies) {
    const auto frame = writeFrame(body).value();
    all.insert(all.end(), frame.begin(), frame.end());
  }
  return all;
}

/// What a reader gives of the bytes, added so many at a time.
std::vector<std::string> bodiesOf(std::span<const std::uint8_t> bytes, std::size_t atATime, FrameReader& reader) {
  std::vector<std::string> bodies;
  for (std::size_t at = 0; at < bytes.size(); at += atATime) {
    reader.add(bytes.subspan(at, std::min(atATime, bytes.size() - at)));
    while (auto body = reader.next()) bodies.push_back(std::move(*body));
  }
  return bodies;
}

TEST(Frame, comesOutAsItWasWrittenHoweverItIsCut) {
  const std::vector<std::string> bodies{"{}", std::string(1, '\0'), std::string(300, 'x'), "[\"é\"]"};
  const base::Bytes bytes = framesOf(bodies);
  for (std::size_t atATime = 1; atATime <= bytes.size(); ++atATime) {
    FrameReader reader;
    ASSERT_EQ(bodiesOf(bytes, atATime, reader), bodies) << atATime;
    EXPECT_FALSE(reader.hasBegun() || reader.isBroken());
  }
  for (std::size_t size = 1; size < bytes.size(); ++size) {
    FrameReader reader;
    const auto whole = bodiesOf({bytes.data(), size}, size, reader);
    const base::Bytes again = framesOf(whole);
    EXPECT_TRUE(std::equal(again.begin(), again.end(), bytes.begin()));
    EXPECT_EQ(reader.hasBegun(), again.size() < size) << size;
  }
}

TEST(Frame, hasOneTo65536BytesAndAnotherLengthEndsTheLinkBeforeItsBody) {
  EXPECT_FALSE(writeFrame(""));
  EXPECT_FALSE(writeFrame(std::string(65'537, 'x')));
  const std::string largest(65'536, 'x');
  const base::Bytes frame = writeFrame(largest).value();
  FrameReader reader;
  EXPECT_EQ(bodiesOf(frame, 1000, reader), std::vector{largest});
  const base::Bytes refused[] = {
      {0, 0, 0, 0}, {0, 1, 0, 1}, {1, 0, 0, 0}, {0x7F, 0xFF, 0xFF, 0xFF}, {0xFF, 0xFF, 0xFF, 0xFF}};
  for (const base::Bytes& head : refused) {
    FrameReader fresh;
    fresh.add(std::span(head).first(3));
    EXPECT_TRUE(fresh.hasBegun());
    EXPECT_FALSE(fresh.isBroken());
    fresh.add(std::span(head).last(1));
    EXPECT_TRUE(fresh.isBroken());
    EXPECT_FALSE(fresh.hasBegun());
    EXPECT_EQ(bodiesOf(frame, frame.size(), fresh), std::vector<std::string>{});
    // What came whole before it is still there.
    base::Bytes both = framesOf({"first"});
    both.insert(both.end(), head.begin(), head.end());
    FrameReader second;
    EXPECT_EQ(bodiesOf(both, both.size(), second), std::vector<std::string>{"first"});
    EXPECT_TRUE(second.isBroken());
  }
}

}  // namespace
}  // namespace sorvane::phone
