#pragma once

#include <cstdint>
#include <memory>

#include "proxy/call_plan.h"
#include "proxy/price_book_entry.h"

namespace sorvane::proxy {

/// What a service tier costs that the book has no factor for: what the dearest known tier does.
inline constexpr std::int64_t kUnpricedTier = 2 * kFactorOne;

/// What an answer is priced by.
struct CallPlan::Terms {
  ProxyProvider provider = ProxyProvider::anthropic;
  ProxyOperation operation = ProxyOperation::messages;
  std::shared_ptr<const PriceRates> rates;
  TokenBounds bounds;  ///< the largest prompt and output
  PriceScale scale;    ///< the dearest that may apply
  PriceScale unsaid;   ///< holds where an answer does not say what it was served with
  Micros worstMicros = 0;
  std::int64_t choices = 1;      ///< answers to one call, each with an end of its own
  bool mayThinkUnseen = false;   ///< output tokens may be spent that no byte of the answer shows
  bool mayCompact = false;       ///< the provider may first sum the conversation up, at a cost of its own
  bool longWrites = false;       ///< the body names a time to live, so unsplit cache writes cost the dearer rate
  bool dropsUsageEvent = false;  ///< usage was asked for by the proxy, not by the client
};

}  // namespace sorvane::proxy
