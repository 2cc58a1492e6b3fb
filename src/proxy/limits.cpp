#include "proxy/limits.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/json.h"
#include "proxy/limits_json.h"

namespace sorvane::proxy {
namespace {

constexpr std::int64_t kMostBudgetCents = 1'000'000, kShortestSession = 60, kLongestSession = 604'800,
                       kMostRequestsPerMinute = 10'000, kLeastBodyBytes = 1'024, kMostBodyBytes = 33'554'432;

using base::Json;

bool within(std::int64_t value, std::int64_t least, std::int64_t most) {
  return value >= least && value <= most;
}

bool areAllowed(const std::optional<AllowedModels>& models) {
  if (!models) return true;
  return std::all_of(models->begin(), models->end(), [](const auto& entry) {
    const auto& names = entry.second;
    return names.size() <= kMostModels && std::all_of(names.begin(), names.end(), isModelName);
  });
}

bool readInteger(const Json& object, const char* name, std::int64_t& value) {
  const auto found = object.find(name);
  if (found == object.end() || !found->is_number_integer()) return false;
  // A number that only the unsigned type holds is out of every range.
  if (found->is_number_unsigned() && found->get<std::uint64_t>() > std::uint64_t{INT64_MAX}) return false;
  value = found->get<std::int64_t>();
  return true;
}

bool readModels(const Json& object, std::optional<AllowedModels>& models) {
  const auto found = object.find("models");
  if (found == object.end()) return true;
  if (!found->is_object()) return false;
  models.emplace();
  for (const auto& [key, list] : found->items()) {
    const auto provider = vault::proxyProviderOf(key);
    if (!provider || !list.is_array()) return false;
    std::vector<std::string>& names = (*models)[*provider];
    for (const Json& name : list) {
      if (!name.is_string()) return false;
      names.push_back(name.get<std::string>());
    }
  }
  return true;
}

}  // namespace

bool isModelName(std::string_view name) {
  return within(static_cast<std::int64_t>(name.size()), 1, kMostModelNameBytes) &&
         std::all_of(name.begin(), name.end(), [](char c) { return c >= '!' && c <= '~'; });
}

std::optional<std::string> ProxyDefaultLimits::problem() const {
  if (!within(budgetCents, 1, kMostBudgetCents)) return "Choose a budget from $0.01 to $10,000.";
  if (!within(budgetCeilingCents, budgetCents, kMostBudgetCents))
    return "The most an agent may ask for must be at least the budget and at most $10,000.";
  if (!within(longestSessionSeconds, kShortestSession, kLongestSession))
    return "Choose a longest session from 1 minute to 7 days.";
  if (!within(requestsPerMinute, 1, kMostRequestsPerMinute)) return "Choose from 1 to 10,000 requests a minute.";
  if (!within(maxBodyBytes, kLeastBodyBytes, kMostBodyBytes)) return "Choose a request size from 1 KB to 32 MB.";
  if (!areAllowed(models)) return "Allowed models: at most 64 per provider, each a plain model name.";
  return std::nullopt;
}

void write(base::JsonWriter& out, const ProxyDefaultLimits& limits) {
  out.beginObject();
  out.key("budgetCents").integer(limits.budgetCents);
  out.key("budgetCeilingCents").integer(limits.budgetCeilingCents);
  out.key("longestSessionSeconds").integer(limits.longestSessionSeconds);
  out.key("requestsPerMinute").integer(limits.requestsPerMinute);
  out.key("maxBodyBytes").integer(limits.maxBodyBytes);
  if (limits.models) {
    out.key("models").beginObject();
    for (const auto& [provider, names] : *limits.models) out.strings(word(provider), names);
    out.endObject();
  }
  out.endObject();
}

std::optional<ProxyDefaultLimits> limitsOf(const Json& object) {
  if (!object.is_object()) return std::nullopt;
  ProxyDefaultLimits limits;
  if (!readInteger(object, "budgetCents", limits.budgetCents) ||
      !readInteger(object, "budgetCeilingCents", limits.budgetCeilingCents) ||
      !readInteger(object, "longestSessionSeconds", limits.longestSessionSeconds) ||
      !readInteger(object, "requestsPerMinute", limits.requestsPerMinute) ||
      !readInteger(object, "maxBodyBytes", limits.maxBodyBytes) || !readModels(object, limits.models)) {
    return std::nullopt;
  }
  // An unknown key may be a limit that a newer version keeps: better no settings than wider ones.
  if (object.size() != 5U + (limits.models ? 1U : 0U)) return std::nullopt;
  return limits;
}

std::string encodeDefaultLimits(const ProxyDefaultLimits& limits) {
  base::JsonWriter out;
  write(out, limits);
  return std::string(out.view());
}

std::optional<ProxyDefaultLimits> decodeDefaultLimits(std::string_view json) {
  const auto object = base::parseJson(json);
  return object ? limitsOf(*object) : std::nullopt;
}

}  // namespace sorvane::proxy
