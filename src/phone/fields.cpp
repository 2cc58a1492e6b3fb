#include "phone/fields.h"

#include <nlohmann/json.hpp>

#include "base/codec.h"

namespace sorvane::phone {
namespace {

using base::Json;

void require(bool holds) {
  if (!holds) throw WrongShape{};
}

bool isWithinLevels(const Json& value, int left) {
  if (!value.is_structured()) return true;
  return left > 0 &&
         std::all_of(value.begin(), value.end(), [left](const Json& item) { return isWithinLevels(item, left - 1); });
}

/// What names, paths and words are: a NUL byte would end them early for the system.
const std::string& plainText(const Json& value) {
  require(value.is_string());
  const auto& text = value.get_ref<const std::string&>();
  require(text.find('\0') == std::string::npos);
  return text;
}

// Bounds of the dates that people write: the years 1 to 9999.
constexpr base::Date kFirstDate = std::chrono::sys_days(std::chrono::year(1) / 1 / 1);
constexpr base::Date kEndOfDates = std::chrono::sys_days(std::chrono::year(10000) / 1 / 1);

}  // namespace

ParsedText::ParsedText(std::string_view text) {
  auto json = base::parseJson(text);
  require(json && isWithinLevels(*json, kMostLevels));
  value_ = std::make_unique<Json>(std::move(*json));
}

ParsedText::~ParsedText() = default;

Fields::Fields(const Json& object) : object_(object) {
  require(object.is_object());
}

const Json& Fields::need(const char* name) const {
  const auto found = object_.find(name);
  require(found != object_.end());
  return *found;
}

bool Fields::has(const char* name) const {
  return object_.contains(name);
}

Fields Fields::object(const char* name) const {
  return Fields(need(name));
}

std::string Fields::text(const char* name) const {
  return plainText(need(name));
}

std::optional<std::string> Fields::optionalText(const char* name) const {
  return has(name) ? std::optional(text(name)) : std::nullopt;
}

bool Fields::boolean(const char* name) const {
  require(need(name).is_boolean());
  return need(name).get<bool>();
}

std::int64_t Fields::integer(const char* name) const {
  const Json& value = need(name);
  require(value.is_number_integer());
  require(!value.is_number_unsigned() || value.get<std::uint64_t>() <= std::uint64_t{INT64_MAX});
  return value.get<std::int64_t>();
}

std::optional<std::int64_t> Fields::optionalInteger(const char* name) const {
  return has(name) ? std::optional(integer(name)) : std::nullopt;
}

std::optional<std::vector<std::string>> Fields::optionalTexts(const char* name) const {
  if (!has(name)) return std::nullopt;
  const Json& value = need(name);
  require(value.is_array());
  std::vector<std::string> items;
  for (const Json& item : value) items.push_back(plainText(item));
  return items;
}

std::map<std::string, std::string> Fields::textsByName(const char* name) const {
  const Json& value = need(name);
  require(value.is_object());
  std::map<std::string, std::string> texts;
  for (const auto& [key, item] : value.items()) {
    require(key.find('\0') == std::string::npos);
    texts.emplace(key, plainText(item));
  }
  return texts;
}

base::Date Fields::date(const char* name) const {
  const std::int64_t seconds = integer(name);
  const auto offset = base::kReferenceDateOffset.count();
  require(seconds >= kFirstDate.time_since_epoch().count() - offset &&
          seconds < kEndOfDates.time_since_epoch().count() - offset);
  return base::Date(std::chrono::seconds(seconds + offset));
}

base::Bytes Fields::bytes(const char* name) const {
  auto bytes = base::parseBase64(text(name));
  require(bytes.has_value());
  return std::move(*bytes);
}

std::optional<base::Bytes> Fields::optionalBytes(const char* name) const {
  return has(name) ? std::optional(bytes(name)) : std::nullopt;
}

std::int64_t wireSeconds(base::Date date) {
  return (date.time_since_epoch() - base::kReferenceDateOffset).count();
}

}  // namespace sorvane::phone
