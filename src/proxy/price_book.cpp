#include "proxy/price_book.h"

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "base/date.h"
#include "proxy/price_book_entry.h"
#include "proxy/price_book_format.h"
#include "proxy/price_book_shipped.h"

namespace sorvane::proxy {
namespace {

struct NameHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view name) const { return std::hash<std::string_view>{}(name); }
};

bool holdsAt(const PriceEntry& entry, base::Date at) {
  return (!entry.from || *entry.from <= at) && (!entry.to || at < *entry.to);
}

std::string dayText(const std::optional<base::Date>& date) {
  return date ? base::iso8601(*date).substr(0, 10) : std::string();
}

PriceRow rowOf(const PriceEntry& entry, const PriceTier& tier) {
  PriceRow row;
  row.provider = entry.provider;
  row.model = entry.id;
  row.aliases = entry.aliases;
  row.from = dayText(entry.from);
  row.to = dayText(entry.to);
  row.promptAbove = tier.promptAbove;
  row.input = decimalOf(tier.rates.input);
  row.cacheRead = decimalOf(tier.rates.cacheRead);
  row.output = decimalOf(tier.rates.output);
  row.write5m = decimalOf(tier.rates.write5m);
  row.write1h = decimalOf(tier.rates.write1h);
  row.write30m = decimalOf(tier.rates.write30m);
  row.write12h = decimalOf(tier.rates.write12h);
  row.source = entry.source;
  row.checkedOn = entry.checkedOn;
  row.origin = entry.origin;
  row.version = entry.version;
  return row;
}

}  // namespace

struct PriceBook::Table {
  using Names =
      std::unordered_map<std::string, std::vector<std::shared_ptr<const PriceEntry>>, NameHash, std::equal_to<>>;
  std::map<std::pair<ProxyProvider, std::string>, std::vector<std::shared_ptr<const PriceEntry>>> models;
  std::array<Names, std::size(vault::kProxyProviders)> names;

  void replace(std::vector<PriceEntry> entries) {
    decltype(models) fresh;
    for (PriceEntry& entry : entries) {
      fresh[{entry.provider, entry.id}].push_back(std::make_shared<const PriceEntry>(std::move(entry)));
    }
    for (auto& [key, list] : fresh) models[key] = std::move(list);
    index(fresh);
  }

 private:
  /// A model's own name wins over an alias of another, and a later layer's alias over an earlier one's.
  void index(const decltype(models)& fresh) {
    std::array<Names, std::size(vault::kProxyProviders)> own, other;
    for (const auto& [key, list] : models) {
      const auto at = static_cast<std::size_t>(key.first);
      for (const auto& entry : list) {
        own[at][entry->id].push_back(entry);
        for (const std::string& alias : entry->aliases) {
          std::vector<std::shared_ptr<const PriceEntry>>& named = other[at][alias];
          named.insert(fresh.contains(key) ? named.begin() : named.end(), entry);
        }
      }
    }
    for (std::size_t at = 0; at < own.size(); ++at) own[at].merge(other[at]);
    names = std::move(own);
  }
};

PriceBook::PriceBook() : table_(std::make_unique<Table>()) {}
PriceBook::~PriceBook() = default;
PriceBook::PriceBook(PriceBook&&) noexcept = default;
PriceBook& PriceBook::operator=(PriceBook&&) noexcept = default;

PriceBook PriceBook::shipped() {
  PriceBook book;
  book.table_->replace(entriesOf(kShippedPrices));
  return book;
}

std::optional<std::string> PriceBook::add(std::string_view prices) {
  try {
    table_->replace(entriesOf(prices));
    return std::nullopt;
  } catch (const PriceTextProblem& problem) {
    return "These prices are not in the form that sorvane reads (" + problem.where +
           "). None of them is used. Correct them as docs/prices.md describes, or remove them.";
  }
}

const PriceEntry* PriceBook::find(ProxyProvider provider, std::string_view model, base::Date at) const {
  const Table::Names& names = table_->names[static_cast<std::size_t>(provider)];
  const auto found = names.find(model);
  if (found == names.end()) return nullptr;
  for (const auto& entry : found->second) {
    if (holdsAt(*entry, at)) return entry.get();
  }
  return nullptr;
}

std::vector<PriceRow> PriceBook::rows() const {
  std::vector<PriceRow> rows;
  for (const auto& [key, entries] : table_->models) {
    for (const auto& entry : entries) {
      for (const PriceTier& tier : entry->rates->tiers) rows.push_back(rowOf(*entry, tier));
    }
  }
  std::stable_sort(rows.begin(), rows.end(), [](const PriceRow& left, const PriceRow& right) {
    return std::tie(left.provider, left.model, left.from, left.promptAbove) <
           std::tie(right.provider, right.model, right.from, right.promptAbove);
  });
  return rows;
}

}  // namespace sorvane::proxy
