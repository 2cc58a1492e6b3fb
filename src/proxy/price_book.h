#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "proxy/limits.h"

namespace sorvane::proxy {

/// One model's prices (price_book_entry.h); others use it through the plan.
struct PriceEntry;

/// PriceRow is one line of the book as a person reads it: amounts are dollars for a million tokens, as decimal text.
struct PriceRow {
  ProxyProvider provider = ProxyProvider::anthropic;
  std::string model;
  std::vector<std::string> aliases;
  std::string from, to;          ///< "2026-10-07", empty where it has no such end
  std::int64_t promptAbove = 0;  ///< holds for whole requests whose prompt is above this
  std::string input, cacheRead, output;
  std::string write5m, write1h, write30m, write12h;
  std::string source, checkedOn, origin, version;
};

/// PriceBook holds the prices of models by provider and exact name. Immutable once built, so that a call is priced by
/// one book from its beginning to its end; any thread.
///
/// It is built in layers, each over those before it: `shipped`, the fetched list of OpenRouter, the owner's own prices.
class PriceBook {
 public:
  PriceBook();
  ~PriceBook();
  PriceBook(PriceBook&&) noexcept;
  PriceBook& operator=(PriceBook&&) noexcept;

  /// The prices that came with this version.
  static PriceBook shipped();
  /// Adds the entries of a text in the format of docs/prices.md; a model that the book already has is replaced with all
  /// its names and dates. When the text is not in that format the book stays as it was and the answer is the sentence
  /// that says so.
  std::optional<std::string> add(std::string_view prices);

  /// nullptr for a model that has no price at this time. Exact names and dated aliases only, never a prefix.
  const PriceEntry* find(ProxyProvider provider, std::string_view model, base::Date at) const;
  /// By provider, then model, then date, then tier.
  std::vector<PriceRow> rows() const;

 private:
  struct Table;
  std::unique_ptr<Table> table_;
};

/// Turns OpenRouter's list of models, as its API answers it, into a text that PriceBook::add takes: to be kept sealed
/// and added at each start. Models whose prices are no fixed amounts (a router's own -1) are left out. nullopt when the
/// bytes are no such list, or name no priced model.
std::optional<std::string> pricesOfOpenRouterList(std::string_view json, base::Date fetchedAt);

}  // namespace sorvane::proxy
