#include "base/date.h"

#include <gtest/gtest.h>

namespace sorvane::base {
namespace {

TEST(Date, readsBackWhatItWrites) {
  for (const std::string_view text : {"0001-01-01T00:00:00Z", "1969-12-31T23:59:59Z", "1970-01-01T00:00:00Z",
                                      "2000-02-29T12:30:01Z", "2026-12-31T00:00:00Z", "9999-12-31T23:59:59Z"}) {
    const auto date = parseIso8601(text);
    ASSERT_TRUE(date) << text;
    EXPECT_EQ(iso8601(*date), text);
  }
  EXPECT_EQ(compactStamp(*parseIso8601("2026-01-02T03:04:05Z")), "20260102T030405Z");
  EXPECT_EQ(parseIso8601("2001-01-01T00:00:00Z")->time_since_epoch(), kReferenceDateOffset);
}

TEST(Date, refusesEveryOtherForm) {
  for (const std::string_view text :
       {"", "2026-12-31", "2026-12-31T00:00:00", "2026-12-31T00:00:00z", "2026-12-31 00:00:00Z",
        "2026-12-31T00:00:00.0Z", "2026-12-31T00:00:00+00:00", "2026-13-01T00:00:00Z", "2026-02-29T00:00:00Z",
        "1900-02-29T00:00:00Z", "2026-00-01T00:00:00Z", "2026-01-00T00:00:00Z", "2026-04-31T00:00:00Z",
        "2026-01-01T24:00:00Z", "2026-01-01T00:60:00Z", "2026-12-31T23:59:60Z", "0000-01-01T00:00:00Z",
        "+026-01-01T00:00:00Z", " 2026-01-01T00:00:0Z"}) {
    EXPECT_EQ(parseIso8601(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace sorvane::base
