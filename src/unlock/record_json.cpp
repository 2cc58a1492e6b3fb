#include "unlock/record_json.h"

#include <nlohmann/json.hpp>

#include "base/codec.h"
#include "base/date.h"

namespace sorvane::unlock {

using base::Json;

const Json* memberOf(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found == object.end() || found->is_null() ? nullptr : &*found;
}

std::optional<base::Bytes> bytesAt(const Json& object, const char* key) {
  const Json* const value = memberOf(object, key);
  if (value == nullptr || !value->is_string()) return std::nullopt;
  return base::parseBase64(value->get_ref<const std::string&>());
}

std::optional<std::int64_t> countAt(const Json& object, const char* key, std::int64_t limit) {
  const Json* const value = memberOf(object, key);
  if (value == nullptr || !value->is_number_unsigned()) return std::nullopt;
  const auto number = value->get<std::uint64_t>();
  if (number > static_cast<std::uint64_t>(limit)) return std::nullopt;
  return static_cast<std::int64_t>(number);
}

std::optional<bool> flagAt(const Json& object, const char* key) {
  const Json* const value = memberOf(object, key);
  if (value == nullptr || !value->is_boolean()) return std::nullopt;
  return value->get<bool>();
}

std::optional<PassphraseRequirement> requirementAt(const Json& object, const char* key) {
  const Json* const value = memberOf(object, key);
  if (value == nullptr || !value->is_string()) return std::nullopt;
  return passphraseRequirementOf(value->get_ref<const std::string&>());
}

bool readDate(const Json& object, const char* key, std::optional<base::Date>& date) {
  const Json* const value = memberOf(object, key);
  if (value == nullptr) return true;
  if (value->is_string()) date = base::parseIso8601(value->get_ref<const std::string&>());
  return date.has_value();
}

}  // namespace sorvane::unlock
