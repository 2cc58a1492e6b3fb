#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/clock.h"

namespace sorvane::base {

/// Writes "2026-12-31T00:00:00Z": UTC, to the second. Years outside 0001 to 9999 are clamped to that range.
std::string iso8601(Date date);

/// Reads exactly the form that `iso8601` writes, with a real calendar day and no leap second; anything else is nullopt.
std::optional<Date> parseIso8601(std::string_view text);

/// Seconds between 1970-01-01 and 2001-01-01 (UTC), the reference date of the dates on the agent socket.
inline constexpr std::chrono::seconds kReferenceDateOffset{978307200};

/// Writes a compact UTC stamp "20261231T000000Z" that may stand in a file name.
std::string compactStamp(Date date);

}  // namespace sorvane::base
