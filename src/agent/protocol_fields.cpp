#include "agent/protocol_fields.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "base/date.h"

namespace sorvane::agent {
namespace {

using base::Json;

void wipeTexts(Json& value) {
  if (value.is_string()) base::wipe(value.get_ref<std::string&>());
  if (value.is_structured()) {
    for (auto& item : value) wipeTexts(item);
  }
}

}  // namespace

ParsedMessage::ParsedMessage(std::string_view text) {
  auto json = base::parseJson(text);
  if (!json) throw WrongShape{};
  value_ = std::make_unique<Json>(std::move(*json));
}

ParsedMessage::~ParsedMessage() {
  if (value_) wipeTexts(*value_);
}

const std::string& anyText(const Json& value) {
  if (!value.is_string()) throw WrongShape{};
  return value.get_ref<const std::string&>();
}

const std::string& plainText(const Json& value) {
  const std::string& text = anyText(value);
  if (text.find('\0') != std::string::npos) throw WrongShape{};
  return text;
}

Fields::Fields(const Json& object) : object_(object) {
  if (!object.is_object()) throw WrongShape{};
}

const Json* Fields::find(const char* name) const {
  const auto found = object_.find(name);
  return found == object_.end() || found->is_null() ? nullptr : &*found;
}

const Json& Fields::need(const char* name) const {
  const Json* value = find(name);
  if (value == nullptr) throw WrongShape{};
  return *value;
}

std::optional<std::string> Fields::text(const char* name) const {
  const Json* value = find(name);
  return value ? std::optional(plainText(*value)) : std::nullopt;
}

std::optional<base::SecretText> Fields::secret(const char* name) const {
  const Json* value = find(name);
  return value ? std::optional(base::SecretText(anyText(*value))) : std::nullopt;
}

std::optional<std::int64_t> Fields::integer(const char* name) const {
  const Json* value = find(name);
  if (value == nullptr) return std::nullopt;
  if (value->is_number_unsigned() && value->get<std::uint64_t>() > INT64_MAX) throw WrongShape{};
  if (value->is_number_integer()) return value->get<std::int64_t>();
  throw WrongShape{};
}

std::optional<std::vector<std::string>> Fields::list(const char* name) const {
  const Json* value = find(name);
  if (value == nullptr) return std::nullopt;
  if (!value->is_array()) throw WrongShape{};
  std::vector<std::string> items;
  for (const Json& item : *value) items.push_back(plainText(item));
  return items;
}

bool Fields::boolean(const char* name) const {
  const Json& value = need(name);
  if (!value.is_boolean()) throw WrongShape{};
  return value.get<bool>();
}

std::int64_t Fields::needInteger(const char* name) const {
  const auto value = integer(name);
  if (!value) throw WrongShape{};
  return *value;
}

base::Date Fields::date(const char* name) const {
  const Json& value = need(name);
  // A fraction is allowed on the wire; the records have whole seconds. 1e11 seconds lie beyond the year 5000.
  if (!value.is_number() || std::abs(value.get<double>()) > 1e11) throw WrongShape{};
  return base::Date(base::kReferenceDateOffset + std::chrono::seconds(std::llround(std::floor(value.get<double>()))));
}

}  // namespace sorvane::agent
