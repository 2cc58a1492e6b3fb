#include "proxy/price_book_format.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/date.h"
#include "base/json.h"

namespace sorvane::proxy {
namespace {

using base::Json;

constexpr std::string_view kFormat = "sorvane-prices-v1";
constexpr std::size_t kMostRows = 20'000, kMostTiers = 8, kMostWords = 16, kMostNameBytes = 128;
constexpr std::int64_t kMostFactor = 100 * kFactorOne, kMostCount = 100'000'000;

struct RateField {
  const char* name;
  Rate TokenRates::*rate;
  Rate TokenRates::*without;  ///< whose price it has when it is left out; nullptr: required
};
// In an order in which each class stands behind the one it takes its price from.
constexpr std::array kRateFields{
    RateField{"input", &TokenRates::input, nullptr},
    RateField{"cache_read", &TokenRates::cacheRead, &TokenRates::input},
    RateField{"write_5m", &TokenRates::write5m, &TokenRates::input},
    RateField{"write_1h", &TokenRates::write1h, &TokenRates::write5m},
    RateField{"write_30m", &TokenRates::write30m, &TokenRates::input},
    RateField{"write_12h", &TokenRates::write12h, &TokenRates::write30m},
    RateField{"output", &TokenRates::output, nullptr},
};
struct FeeField {
  const char* name;
  std::int64_t PriceRates::*fee;
};
constexpr std::array kFeeFields{FeeField{"web_search", &PriceRates::webSearchNanos},
                                FeeField{"request", &PriceRates::requestNanos},
                                FeeField{"image", &PriceRates::imageNanos}};
struct CountField {
  const char* name;
  std::int64_t PriceRates::*count;
  std::int64_t without;
};
constexpr std::array kCountFields{CountField{"context_bound", &PriceRates::contextBound, kContextBound},
                                  CountField{"output_bound", &PriceRates::mostOutput, kOutputBound},
                                  CountField{"image_tokens", &PriceRates::imageTokens, kImageTokens}};
constexpr std::array kThinks{std::pair{"never", Thinks::never}, std::pair{"asked", Thinks::asked},
                             std::pair{"always", Thinks::always}};

/// Reads the fields of one object and remembers which there were, so that a misspelt one is not passed over.
class Row {
 public:
  Row(const Json& object, std::string where) : object_(object), where_(std::move(where)) {
    if (!object.is_object()) fail("");
  }
  const Json* find(const char* name) {
    const auto found = object_.find(name);
    if (found == object_.end()) return nullptr;
    ++read_;
    return &*found;
  }
  std::string text(const char* name, bool required) {
    const Json* const value = find(name);
    if (value == nullptr && !required) return {};
    if (value == nullptr || !value->is_string()) fail(name);
    return value->get<std::string>();
  }
  std::optional<std::int64_t> amount(const char* name) {
    const Json* const value = find(name);
    if (value == nullptr) return std::nullopt;
    const auto nanos = value->is_string() ? nanosOf(value->get_ref<const std::string&>()) : std::nullopt;
    if (!nanos) fail(name);
    return nanos;
  }
  std::optional<std::int64_t> count(const char* name) {
    const Json* const value = find(name);
    if (value == nullptr) return std::nullopt;
    if (!value->is_number_unsigned() || value->get<std::uint64_t>() > kMostCount) fail(name);
    return value->get<std::int64_t>();
  }
  std::optional<base::Date> day(const char* name) {
    const std::string word = text(name, false);
    if (word.empty()) return std::nullopt;
    const auto date = base::parseIso8601(word + "T00:00:00Z");
    if (!date) fail(name);
    return date;
  }
  void end() const {
    if (read_ != object_.size()) fail("");
  }
  [[noreturn]] void fail(std::string_view field) const {
    throw PriceTextProblem{field.empty() ? where_ : where_ + ", \"" + std::string(field) + "\""};
  }
  const std::string& where() const { return where_; }

 private:
  const Json& object_;
  std::string where_;
  std::size_t read_ = 0;
};

TokenRates ratesOf(Row& row) {
  TokenRates rates;
  for (const RateField& field : kRateFields) {
    const auto amount = row.amount(field.name);
    if (!amount && field.without == nullptr) row.fail(field.name);
    rates.*field.rate = amount ? *amount : rates.*field.without;
  }
  return rates;
}

PriceFactors factorsOf(Row& row, const char* name) {
  PriceFactors factors;
  const Json* const object = row.find(name);
  if (object == nullptr) return factors;
  if (!object->is_object() || object->size() > kMostWords) row.fail(name);
  for (const auto& [word, value] : object->items()) {
    const auto nanos = value.is_string() ? nanosOf(value.get_ref<const std::string&>()) : std::nullopt;
    if (!nanos || *nanos % 1'000'000 != 0 || *nanos / 1'000'000 > kMostFactor) row.fail(name);
    factors.emplace_back(word, *nanos / 1'000'000);
  }
  return factors;
}

std::vector<PriceTier> tiersOf(Row& row) {
  std::vector<PriceTier> tiers{{0, ratesOf(row)}};
  const Json* const list = row.find("tiers");
  if (list == nullptr) return tiers;
  if (!list->is_array() || list->size() > kMostTiers) row.fail("tiers");
  for (const Json& item : *list) {
    Row tier(item, row.where() + ", \"tiers\"");
    const auto above = tier.count("prompt_above");
    if (!above || *above <= tiers.back().promptAbove) tier.fail("prompt_above");
    tiers.push_back({*above, ratesOf(tier)});
    tier.end();
  }
  return tiers;
}

Thinks thinksOf(Row& row) {
  const std::string word = row.text("thinks", false);
  if (word.empty()) return Thinks::always;
  for (const auto& [name, thinks] : kThinks) {
    if (word == name) return thinks;
  }
  row.fail("thinks");
}

bool isModelName(std::string_view name) {
  return !name.empty() && name.size() <= kMostNameBytes &&
         std::all_of(name.begin(), name.end(), [](char c) { return c >= '!' && c <= '~'; });
}

PriceEntry entryOf(Row& row) {
  PriceEntry entry;
  const auto provider = vault::proxyProviderOf(row.text("provider", true));
  if (!provider) row.fail("provider");
  entry.provider = *provider;
  entry.id = row.text("id", true);
  if (!isModelName(entry.id)) row.fail("id");
  if (const Json* const aliases = row.find("aliases"); aliases != nullptr) {
    if (!aliases->is_array() || aliases->size() > kMostWords) row.fail("aliases");
    for (const Json& alias : *aliases) {
      if (!alias.is_string() || !isModelName(alias.get_ref<const std::string&>())) row.fail("aliases");
      entry.aliases.push_back(alias);
    }
  }
  entry.from = row.day("from");
  entry.to = row.day("to");
  PriceRates rates;
  rates.tiers = tiersOf(row);
  rates.factors = factorsOf(row, "factors");
  rates.regions = factorsOf(row, "regions");
  for (const FeeField& field : kFeeFields) rates.*field.fee = row.amount(field.name).value_or(0);
  for (const CountField& field : kCountFields) rates.*field.count = row.count(field.name).value_or(field.without);
  rates.thinks = thinksOf(row);
  entry.rates = std::make_shared<const PriceRates>(std::move(rates));
  entry.source = row.text("source", true);
  entry.checkedOn = row.text("checked", true);
  row.end();
  return entry;
}

std::string dayOf(base::Date date) {
  return base::iso8601(date).substr(0, 10);
}

void writeRates(Json& row, const TokenRates& rates) {
  for (const RateField& field : kRateFields) {
    if (field.without == nullptr || rates.*field.rate != rates.*field.without) {
      row[field.name] = decimalOf(rates.*field.rate);
    }
  }
}

void writeFactors(Json& row, const char* name, const PriceFactors& factors) {
  for (const auto& [word, factor] : factors) row[name][word] = decimalOf(factor * 1'000'000);
}

Json rowOf(const PriceEntry& entry) {
  const PriceRates& rates = *entry.rates;
  Json row{{"provider", std::string(vault::word(entry.provider))},
           {"id", entry.id},
           {"source", entry.source},
           {"checked", entry.checkedOn}};
  if (!entry.aliases.empty()) row["aliases"] = entry.aliases;
  if (entry.from) row["from"] = dayOf(*entry.from);
  if (entry.to) row["to"] = dayOf(*entry.to);
  writeRates(row, rates.tiers.front().rates);
  for (std::size_t at = 1; at < rates.tiers.size(); ++at) {
    Json tier{{"prompt_above", rates.tiers[at].promptAbove}};
    writeRates(tier, rates.tiers[at].rates);
    row["tiers"].push_back(std::move(tier));
  }
  writeFactors(row, "factors", rates.factors);
  writeFactors(row, "regions", rates.regions);
  for (const FeeField& field : kFeeFields) {
    if (rates.*field.fee != 0) row[field.name] = decimalOf(rates.*field.fee);
  }
  for (const CountField& field : kCountFields) {
    if (rates.*field.count != field.without) row[field.name] = rates.*field.count;
  }
  for (const auto& [name, thinks] : kThinks) {
    if (thinks == rates.thinks && thinks != Thinks::always) row["thinks"] = name;
  }
  return row;
}

}  // namespace

std::vector<PriceEntry> entriesOf(std::string_view prices) {
  const auto json = base::parseJson(prices);
  if (!json) throw PriceTextProblem{"the text is no JSON, or names a key twice"};
  Row top(*json, "the outermost object");
  if (top.text("format", true) != kFormat) top.fail("format");
  const std::string version = top.text("version", true), origin = top.text("origin", true);
  const Json* const list = top.find("models");
  if (list == nullptr || !list->is_array() || list->size() > kMostRows) top.fail("models");
  top.end();
  std::vector<PriceEntry> entries;
  entries.reserve(list->size());
  for (const Json& item : *list) {
    Row row(item, "row " + std::to_string(entries.size() + 1) + " of \"models\"");
    PriceEntry& entry = entries.emplace_back(entryOf(row));
    entry.origin = origin;
    entry.version = version;
  }
  return entries;
}

std::string pricesOf(const std::vector<PriceEntry>& entries, std::string_view origin, std::string_view version) {
  Json top{{"format", kFormat}, {"version", version}, {"origin", origin}, {"models", Json::array()}};
  for (const PriceEntry& entry : entries) top["models"].push_back(rowOf(entry));
  return top.dump();
}

}  // namespace sorvane::proxy
