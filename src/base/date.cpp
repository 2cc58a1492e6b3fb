#include "base/date.h"

#include <algorithm>
#include <array>

namespace sorvane::base {
namespace {

struct Fields {
  int year;
  unsigned month, day;
  unsigned hour, minute, second;
};

Fields fieldsOf(Date date) {
  using namespace std::chrono;
  const Date first = sys_days{year{1} / 1 / 1};
  const Date last = sys_days{year{9999} / 12 / 31} + hours{23} + minutes{59} + seconds{59};
  date = std::clamp(date, first, last);
  const sys_days day = floor<days>(date);
  const year_month_day calendar{day};
  const auto rest = static_cast<unsigned>((date - day).count());
  return {static_cast<int>(calendar.year()),
          static_cast<unsigned>(calendar.month()),
          static_cast<unsigned>(calendar.day()),
          rest / 3600,
          rest / 60 % 60,
          rest % 60};
}

void appendDigits(std::string& text, unsigned value, int width) {
  std::array<char, 4> digits{};
  for (int i = width - 1; i >= 0; --i, value /= 10)
    digits[static_cast<std::size_t>(i)] = static_cast<char>('0' + value % 10);
  text.append(digits.data(), static_cast<std::size_t>(width));
}

std::optional<unsigned> digitsAt(std::string_view text, std::size_t at, std::size_t width) {
  unsigned value = 0;
  for (std::size_t i = at; i < at + width; ++i) {
    if (text[i] < '0' || text[i] > '9') return std::nullopt;
    value = value * 10 + static_cast<unsigned>(text[i] - '0');
  }
  return value;
}

}  // namespace

std::string iso8601(Date date) {
  const Fields f = fieldsOf(date);
  std::string text;
  text.reserve(20);
  appendDigits(text, static_cast<unsigned>(f.year), 4);
  text += '-';
  appendDigits(text, f.month, 2);
  text += '-';
  appendDigits(text, f.day, 2);
  text += 'T';
  appendDigits(text, f.hour, 2);
  text += ':';
  appendDigits(text, f.minute, 2);
  text += ':';
  appendDigits(text, f.second, 2);
  text += 'Z';
  return text;
}

std::string compactStamp(Date date) {
  std::string text = iso8601(date);
  std::erase_if(text, [](char c) { return c == '-' || c == ':'; });
  return text;
}

std::optional<Date> parseIso8601(std::string_view text) {
  using namespace std::chrono;
  if (text.size() != 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':' ||
      text[19] != 'Z') {
    return std::nullopt;
  }
  const auto y = digitsAt(text, 0, 4), mo = digitsAt(text, 5, 2), d = digitsAt(text, 8, 2);
  const auto h = digitsAt(text, 11, 2), mi = digitsAt(text, 14, 2), s = digitsAt(text, 17, 2);
  if (!y || !mo || !d || !h || !mi || !s) return std::nullopt;
  const year_month_day calendar{year{static_cast<int>(*y)}, month{*mo}, day{*d}};
  if (*y < 1 || !calendar.ok() || *h > 23 || *mi > 59 || *s > 59) return std::nullopt;
  return sys_days{calendar} + hours{*h} + minutes{*mi} + seconds{*s};
}

}  // namespace sorvane::base
