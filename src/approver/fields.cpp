#include "approver/fields.h"

#include <limits>

#include "base/codec.h"
#include "base/json.h"

namespace sorvane::approver {
namespace {

using nlohmann::json;

constexpr int kMostLevels = 16;

// The years 1 to 9999, counted from the reference date.
constexpr std::chrono::seconds sinceReference(std::chrono::year_month_day day) {
  return base::Date(std::chrono::sys_days(day)).time_since_epoch() - base::kReferenceDateOffset;
}
constexpr std::chrono::seconds kFirstDate = sinceReference(std::chrono::year{1} / 1 / 1),
                               kLastDate = sinceReference(std::chrono::year{10000} / 1 / 1) - std::chrono::seconds(1);

void require(bool holds) {
  if (!holds) throw LinkError(LinkError::Case::unreadable);
}

bool isWithinLevels(const json& value, int left) {
  if (!value.is_structured()) return true;
  return left > 0 &&
         std::all_of(value.begin(), value.end(), [left](const json& inner) { return isWithinLevels(inner, left - 1); });
}

std::string textOf(const json& value) {
  require(value.is_string());
  auto text = value.get<std::string>();
  require(text.find('\0') == std::string::npos);
  return text;
}

}  // namespace

Fields::Fields(json object) : object_(std::move(object)) {
  require(object_.is_object());
}

Fields Fields::of(std::string_view text) {
  const auto value = base::parseJson(text);
  require(value && isWithinLevels(*value, kMostLevels));
  return Fields(*value);
}

const json& Fields::at(const char* key) const {
  const auto found = object_.find(key);
  require(found != object_.end());
  return *found;
}

std::string Fields::text(const char* key) const {
  return textOf(at(key));
}

std::optional<std::string> Fields::optionalText(const char* key) const {
  return has(key) ? std::optional(text(key)) : std::nullopt;
}

bool Fields::boolean(const char* key) const {
  require(at(key).is_boolean());
  return at(key).get<bool>();
}

std::optional<std::int64_t> Fields::optionalInteger(const char* key) const {
  if (!has(key)) return std::nullopt;
  const json& value = at(key);
  require(value.is_number_integer());
  if (value.is_number_unsigned())
    require(value.get<std::uint64_t>() <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()));
  return value.get<std::int64_t>();
}

base::Date Fields::date(const char* key) const {
  const auto seconds = optionalInteger(key);
  require(seconds && *seconds >= kFirstDate.count() && *seconds <= kLastDate.count());
  return base::Date(base::kReferenceDateOffset + std::chrono::seconds(*seconds));
}

std::optional<std::vector<std::string>> Fields::optionalTexts(const char* key) const {
  if (!has(key)) return std::nullopt;
  require(at(key).is_array());
  std::vector<std::string> list;
  for (const json& item : at(key)) list.push_back(textOf(item));
  return list;
}

std::map<std::string, std::string> Fields::textsByName(const char* key) const {
  require(at(key).is_object());
  std::map<std::string, std::string> texts;
  for (const auto& [name, value] : at(key).items()) texts.emplace(textOf(name), textOf(value));
  return texts;
}

base::Bytes Fields::bytes(const char* key) const {
  auto bytes = base::parseBase64(text(key));
  require(bytes.has_value());
  return std::move(*bytes);
}

Fields Fields::object(const char* key) const {
  return Fields(at(key));
}

}  // namespace sorvane::approver
