#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "proxy/price_book_entry.h"

namespace sorvane::proxy {

/// What holds for a model where neither its row nor its provider's figures say more. Each is a bound that no model of
/// the provider passes, so that a reservation made with it is large enough.
inline constexpr std::int64_t kContextBound = 2'000'000, kOutputBound = 256'000, kImageTokens = 50'000;

/// A price text that is not in its format. `where` names the row and field, for the owner.
struct PriceTextProblem {
  std::string where;
};
/// Reads a text in the format of docs/prices.md; throws PriceTextProblem.
std::vector<PriceEntry> entriesOf(std::string_view prices);
/// Writes a text that entriesOf reads back to the same entries. All have the same origin and version.
std::string pricesOf(const std::vector<PriceEntry>& entries, std::string_view origin, std::string_view version);

}  // namespace sorvane::proxy
