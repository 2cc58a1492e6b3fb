#include <nlohmann/json.hpp>
#include <utility>

#include "base/date.h"
#include "base/json.h"
#include "proxy/price_book.h"
#include "proxy/price_book_format.h"

namespace sorvane::proxy {
namespace {

using base::Json;

constexpr std::string_view kOrigin = "openrouter-list", kSource = "OpenRouter models API";
constexpr std::size_t kMostNameBytes = 128;
constexpr std::uint64_t kMostCount = 100'000'000;
/// The list prices a token; the book prices a million.
constexpr int kMillion = 6;

struct ListField {
  const char* name;
  Rate TokenRates::*rate;
};
constexpr ListField kFields[] = {{"prompt", &TokenRates::input},
                                 {"completion", &TokenRates::output},
                                 {"input_cache_read", &TokenRates::cacheRead},
                                 {"input_cache_write", &TokenRates::write5m}};

/// nullopt for what is no fixed amount; `without` for what is not given.
std::optional<std::int64_t> amountOf(const Json& pricing, const char* name, int shift, std::int64_t without) {
  const auto found = pricing.find(name);
  if (found == pricing.end() || found->is_null()) return without;
  if (!found->is_string()) return std::nullopt;
  return nanosOf(found->get_ref<const std::string&>(), shift);
}

std::optional<TokenRates> ratesOf(const Json& pricing) {
  if (!pricing.is_object() || !pricing.contains("prompt") || !pricing.contains("completion")) return std::nullopt;
  TokenRates rates;
  for (const ListField& field : kFields) {
    const auto amount = amountOf(pricing, field.name, kMillion, rates.input);
    if (!amount) return std::nullopt;
    rates.*field.rate = *amount;
  }
  rates.write1h = rates.write5m;
  rates.write30m = rates.write12h = rates.write5m;
  return rates;
}

std::int64_t countOf(const Json& model, const char* name, std::int64_t without) {
  const auto found = model.find(name);
  if (found == model.end() || !found->is_number_unsigned()) return without;
  const auto count = found->get<std::uint64_t>();
  return count == 0 || count > kMostCount ? without : static_cast<std::int64_t>(count);
}

bool isName(std::string_view name) {
  if (name.empty() || name.size() > kMostNameBytes) return false;
  for (const char c : name) {
    if (c < '!' || c > '~') return false;
  }
  return true;
}

std::optional<PriceEntry> entryOf(const Json& model, const std::string& day) {
  if (!model.is_object() || !model.contains("id") || !model["id"].is_string() || !model.contains("pricing")) {
    return std::nullopt;
  }
  const Json& pricing = model["pricing"];
  const auto rates = ratesOf(pricing);
  PriceEntry entry;
  entry.id = model["id"];
  if (!rates || !isName(entry.id)) return std::nullopt;
  const auto request = amountOf(pricing, "request", 0, 0), image = amountOf(pricing, "image", 0, 0);
  if (!request || !image) return std::nullopt;
  PriceRates all;
  all.tiers = {{0, *rates}};
  all.requestNanos = *request;
  all.imageNanos = *image;
  all.contextBound = countOf(model, "context_length", kContextBound);
  all.mostOutput = kOutputBound;
  all.imageTokens = kImageTokens;
  entry.provider = ProxyProvider::openrouter;
  entry.rates = std::make_shared<const PriceRates>(std::move(all));
  entry.source = kSource;
  entry.checkedOn = day;
  return entry;
}

}  // namespace

std::optional<std::string> pricesOfOpenRouterList(std::string_view json, base::Date fetchedAt) {
  const auto list = base::parseJson(json);
  if (!list || !list->is_object() || !list->contains("data") || !(*list)["data"].is_array()) return std::nullopt;
  const std::string moment = base::iso8601(fetchedAt);
  std::vector<PriceEntry> entries;
  for (const Json& model : (*list)["data"]) {
    if (auto entry = entryOf(model, moment.substr(0, 10))) entries.push_back(std::move(*entry));
  }
  if (entries.empty()) return std::nullopt;
  return pricesOf(entries, kOrigin, moment);
}

}  // namespace sorvane::proxy
