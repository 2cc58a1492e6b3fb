#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

#include "base/json.h"
#include "proxy/broker_state.h"

namespace sorvane::proxy {
namespace {

ProxyAskRefusal budgetInvalid() {
  return {"proxy_budget_invalid", "proxy_budget_cents must be a whole number of cents, at least 1."};
}
ProxyAskRefusal budgetAboveCeiling(std::int64_t ceilingCents) {
  return {"proxy_budget_above_ceiling",
          "proxy_budget_cents is above the most the owner allows an agent to ask for (" + dollarsOf(ceilingCents) +
              "). Nothing was asked. Ask for less, or ask the user to raise the limit in sorvane."};
}
ProxyAskRefusal modelsInvalid() {
  return {"proxy_models_invalid", "proxy_models must list 1 to 64 model names."};
}
ProxyAskRefusal modelNotAllowed(const std::string& name) {
  return {"proxy_models_not_allowed", "The owner does not allow the model " + name + " for agents. Nothing was asked."};
}

/// A number too large for the type is the largest one: above every ceiling.
std::optional<std::int64_t> centsOfText(std::string_view text) {
  const bool digits = std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  if (text.empty() || !digits || text[0] == '0') return std::nullopt;
  std::int64_t cents = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), cents);
  return read.ec == std::errc::result_out_of_range ? INT64_MAX : cents;
}

bool isModelList(const std::vector<std::string>& names) {
  return !names.empty() && names.size() <= kMostModels && std::all_of(names.begin(), names.end(), isModelName);
}

std::optional<std::vector<std::string>> modelsOfText(std::string_view text) {
  const auto list = base::parseJson(text);
  if (!list || !list->is_array()) return std::nullopt;
  std::vector<std::string> names;
  for (const base::Json& name : *list) {
    if (!name.is_string()) return std::nullopt;
    names.push_back(name.get<std::string>());
  }
  return isModelList(names) ? std::optional(std::move(names)) : std::nullopt;
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

/// What the request names and the owner allows, for the providers of the grant.
std::optional<AllowedModels> modelsFor(const GrantedLimits& granted, const std::optional<AllowedModels>& owner) {
  if (!granted.ask.models) return owner;
  AllowedModels allowed;
  for (const auto& [provider, credential] : granted.credentials) {
    const auto list = owner ? owner->find(provider) : AllowedModels::const_iterator{};
    if (owner && list == owner->end()) continue;
    std::vector<std::string>& names = allowed[provider];
    for (const std::string& name : *granted.ask.models) {
      if ((!owner || contains(list->second, name)) && !contains(names, name)) names.push_back(name);
    }
  }
  return allowed;
}

}  // namespace

std::variant<ProxyAsk, ProxyAskRefusal> proxyAskOf(const std::string* budgetText, const std::string* modelsText) {
  ProxyAsk ask;
  if (budgetText != nullptr) {
    ask.budgetCents = centsOfText(*budgetText);
    if (!ask.budgetCents) return budgetInvalid();
  }
  if (modelsText != nullptr) {
    ask.models = modelsOfText(*modelsText);
    if (!ask.models) return modelsInvalid();
  }
  return ask;
}

std::optional<ProxyAskRefusal> refusalOf(const ProxyAsk& ask, const ProxyDefaultLimits& defaults) {
  if (ask.budgetCents && *ask.budgetCents < 1) return budgetInvalid();
  if (ask.budgetCents && *ask.budgetCents > defaults.budgetCeilingCents)
    return budgetAboveCeiling(defaults.budgetCeilingCents);
  if (!ask.models) return std::nullopt;
  if (!isModelList(*ask.models)) return modelsInvalid();
  if (!defaults.models) return std::nullopt;
  for (const std::string& name : *ask.models) {
    const bool allowed = std::any_of(defaults.models->begin(), defaults.models->end(),
                                     [&](const auto& entry) { return contains(entry.second, name); });
    if (!allowed) return modelNotAllowed(name);
  }
  return std::nullopt;
}

ProxyAskError::ProxyAskError(std::string code)
    : Error(
          "The owner's limits do not allow what this stand-in was asked for, or not with the keys of this environment. "
          "Nothing was shared. Ask for less, or ask the user to look at `sorvane proxy limits`."),
      code_(std::move(code)) {}

ProxyLimits limitsFor(const GrantedLimits& granted, const ProxyDefaultLimits& defaults) {
  ProxyLimits limits;
  limits.budgetMicros = multiplySaturating(granted.ask.budgetCents.value_or(defaults.budgetCents), kMicrosPerCent);
  limits.expiresAt = std::min(granted.until, granted.now + std::chrono::seconds(defaults.longestSessionSeconds));
  limits.models = modelsFor(granted, defaults.models);
  for (const std::string& name : granted.ask.models.value_or(std::vector<std::string>{})) {
    const bool allowed = std::any_of(limits.models->begin(), limits.models->end(),
                                     [&](const auto& entry) { return contains(entry.second, name); });
    if (!allowed) throw ProxyAskError(modelNotAllowed(name).code);
  }
  limits.requestsPerMinute = static_cast<int>(defaults.requestsPerMinute);
  limits.maxBodyBytes = defaults.maxBodyBytes;
  limits.maxConcurrentCalls = kMaxConcurrentCalls;
  limits.callTimeoutSeconds = kCallTimeoutSeconds;
  return limits;
}

}  // namespace sorvane::proxy
