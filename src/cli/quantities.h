#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace sorvane::cli {

// What a person types for an amount. Each throws Failure with the forms that are understood, and `undone`, which says
// what was not done.

/// Seconds in "90s", "45m", "1h30m", "2d" or a plain number of seconds.
std::int64_t secondsIn(const std::string& text, std::string_view undone);
/// Cents in "5", "0.25" or "$5.00": dollars with at most two decimals.
std::int64_t centsIn(const std::string& text, std::string_view undone);
/// Bytes in "64KB", "32MB" or a plain number; a KB is 1,024 of them.
std::int64_t bytesIn(const std::string& text, std::string_view undone);

/// "$5.00", and as many further digits as there are: nothing is rounded.
std::string dollarsInWords(std::int64_t micros);

}  // namespace sorvane::cli
