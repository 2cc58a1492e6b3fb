#include "agent/action_arguments.h"

#include <charconv>
#include <nlohmann/json.hpp>

#include "base/date.h"
#include "base/json.h"

namespace sorvane::agent {

const std::string* ActionArguments::find(std::string_view name) const {
  const auto found = payload_.find(name);
  return found == payload_.end() ? nullptr : &found->second;
}

void ActionArguments::malformed(std::string_view name, std::string_view expected) const {
  throw ActionError(std::string(action_) + " needs " + std::string(expected) + " as " + std::string(name) +
                    ". Nothing was changed or shared.");
}

const std::string& ActionArguments::need(std::string_view name) const {
  const std::string* const text = find(name);
  if (text == nullptr || text->empty()) {
    throw ActionError(std::string(action_) + " needs " + std::string(name) + ". Nothing was changed or shared.");
  }
  return *text;
}

std::optional<std::string> ActionArguments::text(std::string_view name) const {
  const std::string* const text = find(name);
  return text ? std::optional(*text) : std::nullopt;
}

std::optional<std::optional<std::string>> ActionArguments::clearable(std::string_view name) const {
  const std::string* const text = find(name);
  if (text == nullptr) return std::nullopt;
  return text->empty() ? std::optional<std::string>() : std::optional(*text);
}

std::optional<bool> ActionArguments::boolean(std::string_view name) const {
  const std::string* const text = find(name);
  if (text == nullptr) return std::nullopt;
  if (*text != "true" && *text != "false") malformed(name, "true or false");
  return *text == "true";
}

std::optional<std::int64_t> ActionArguments::integer(std::string_view name) const {
  const std::string* const text = find(name);
  if (text == nullptr || text->empty()) return std::nullopt;
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), number);
  if (error != std::errc() || end != text->data() + text->size()) malformed(name, "a whole number");
  return number;
}

std::int64_t ActionArguments::needInteger(std::string_view name) const {
  need(name);
  return *integer(name);
}

std::optional<std::optional<base::Date>> ActionArguments::date(std::string_view name) const {
  const std::string* const text = find(name);
  if (text == nullptr) return std::nullopt;
  if (text->empty()) return std::optional<base::Date>();
  const auto date = base::parseIso8601(*text);
  if (!date) throw ActionError("Use an ISO 8601 date, for example 2026-12-31T00:00:00Z.");
  return date;
}

std::optional<std::vector<std::string>> ActionArguments::list(std::string_view name) const {
  const std::string* const text = find(name);
  if (text == nullptr) return std::nullopt;
  const auto json = base::parseJson(*text);
  if (!json || !json->is_array()) malformed(name, "a JSON array of text");
  std::vector<std::string> items;
  for (const base::Json& item : *json) {
    if (!item.is_string()) malformed(name, "a JSON array of text");
    items.push_back(item.get<std::string>());
  }
  return items;
}

std::vector<std::pair<std::string, std::string>> ActionArguments::needPairs(std::string_view name) const {
  constexpr std::string_view kExpected = "a JSON array of pairs of text";
  const auto json = base::parseJson(need(name));
  if (!json || !json->is_array() || json->empty()) malformed(name, kExpected);
  std::vector<std::pair<std::string, std::string>> pairs;
  for (const base::Json& item : *json) {
    if (!item.is_array() || item.size() != 2 || !item[0].is_string() || !item[1].is_string())
      malformed(name, kExpected);
    pairs.emplace_back(item[0].get<std::string>(), item[1].get<std::string>());
  }
  return pairs;
}

}  // namespace sorvane::agent
