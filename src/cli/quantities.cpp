#include "cli/quantities.h"

#include <charconv>
#include <optional>

#include "cli/session.h"

namespace sorvane::cli {
namespace {

/// Larger amounts of anything are a slip of the keys, and sums of them stay far from the largest number.
constexpr std::int64_t kMost = 1'000'000'000;

std::optional<std::int64_t> wholeNumber(std::string_view text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < 0 || number > kMost) return std::nullopt;
  return number;
}

Failure malformed(const std::string& text, std::string_view forms, std::string_view undone) {
  return {kUsage, "usage", "'" + text + "' is no " + std::string(forms) + " " + std::string(undone)};
}

}  // namespace

std::int64_t secondsIn(const std::string& text, std::string_view undone) {
  const Failure failure = malformed(text, "duration. Write 3600, 90m, 1h or 1h30m.", undone);
  std::int64_t total = 0;
  const char* at = text.data();
  const char* const end = at + text.size();
  if (at == end) throw failure;
  while (at != end) {
    std::int64_t number = 0;
    const auto [next, error] = std::from_chars(at, end, number);
    if (error != std::errc() || number < 0 || number > 10'000'000) throw failure;
    const char unit = next == end ? 's' : *next;
    const std::int64_t scale = unit == 's' ? 1 : unit == 'm' ? 60 : unit == 'h' ? 3600 : unit == 'd' ? 86400 : 0;
    if (scale == 0 || (next == end && at != text.data())) throw failure;
    total += number * scale;
    at = next == end ? end : next + 1;
  }
  return total;
}

std::int64_t centsIn(const std::string& text, std::string_view undone) {
  const Failure failure = malformed(text, "amount. Write dollars, such as 5 or 0.25.", undone);
  std::string_view rest = text;
  if (rest.starts_with('$')) rest.remove_prefix(1);
  const std::size_t point = rest.find('.');
  const auto dollars = wholeNumber(rest.substr(0, point));
  if (!dollars) throw failure;
  if (point == std::string_view::npos) return *dollars * 100;
  const std::string_view decimals = rest.substr(point + 1);
  const auto cents = wholeNumber(decimals);
  if (!cents || decimals.size() > 2) throw failure;
  return *dollars * 100 + (decimals.size() == 1 ? *cents * 10 : *cents);
}

std::int64_t bytesIn(const std::string& text, std::string_view undone) {
  std::string_view number = text;
  std::int64_t scale = 1;
  for (const auto& [unit, bytes] : {std::pair{"KB", 1'024}, std::pair{"MB", 1'048'576}}) {
    if (!number.ends_with(unit)) continue;
    number.remove_suffix(2);
    scale = bytes;
    break;
  }
  const auto count = wholeNumber(number);
  if (!count) throw malformed(text, "size. Write 64KB, 32MB or a number of bytes.", undone);
  return *count * scale;
}

std::string dollarsInWords(std::int64_t micros) {
  const std::string sign = micros < 0 ? "-" : "";
  const std::uint64_t amount = micros < 0 ? 0 - static_cast<std::uint64_t>(micros) : static_cast<std::uint64_t>(micros);
  std::string decimals = std::to_string(amount % 1'000'000);
  decimals.insert(0, 6 - decimals.size(), '0');
  while (decimals.size() > 2 && decimals.back() == '0') decimals.pop_back();
  return sign + "$" + std::to_string(amount / 1'000'000) + "." + decimals;
}

}  // namespace sorvane::cli
