#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "proxy/limits.h"

namespace sorvane::proxy {

/// One model's prices. price_book.cpp's own; others use it through the plan.
struct PriceEntry;

/// PriceBook holds the prices of models by provider and exact name. Immutable once built, so that a call is priced by
/// one book from its beginning to its end; any thread.
class PriceBook {
 public:
  PriceBook();
  ~PriceBook();
  PriceBook(PriceBook&&) noexcept;
  PriceBook& operator=(PriceBook&&) noexcept;

  /// nullptr for a model that has no price at this time. Exact names and dated aliases only, never a prefix.
  const PriceEntry* find(ProxyProvider provider, std::string_view model, base::Date at) const;

 private:
  struct Table;
  std::unique_ptr<Table> table_;
};

}  // namespace sorvane::proxy
