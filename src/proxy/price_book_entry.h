#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "proxy/limits.h"
#include "proxy/usage.h"

namespace sorvane::proxy {

/// Prices are nano-dollars for a million tokens: "0.003625" dollars is 3,625,000 of them. No amount is ever a floating
/// point number.
using Rate = std::int64_t;
/// Dollars as decimal text in billionths, rounded up; nullopt for anything that is not a plain decimal number from 0 to
/// 1,000,000. `shift` moves the point that many places to the right first; an exponent ("1.4e-05") is read too.
std::optional<std::int64_t> nanosOf(std::string_view decimal, int shift = 0);
/// The shortest decimal text of an amount in billionths.
std::string decimalOf(std::int64_t nanos);

/// What a million tokens of each class cost. A class without a price of its own has that of the class it comes from:
/// input for what is read from or written to a cache, the shorter kept write for the longer kept one.
struct TokenRates {
  Rate input = 0, cacheRead = 0, write5m = 0, write1h = 0, write30m = 0, write12h = 0, output = 0;
};
/// Rates of a whole request whose prompt (input, cache reads and writes) is above `promptAbove` tokens. The first tier
/// holds for every prompt.
struct PriceTier {
  std::int64_t promptAbove = 0;
  TokenRates rates;
};
/// When a model may spend output tokens that its answer does not show.
enum class Thinks { never, asked, always };

/// Factors are thousandths, by the provider's own word for them.
using PriceFactors = std::vector<std::pair<std::string, std::int64_t>>;
inline constexpr std::int64_t kFactorOne = 1'000;
const std::int64_t* factorOf(const PriceFactors& factors, std::string_view word);
/// The largest factor, at least kFactorOne.
std::int64_t dearestOf(const PriceFactors& factors);

/// What one model costs, shared by the calls that it prices.
struct PriceRates {
  std::vector<PriceTier> tiers;                                       ///< by promptAbove, never empty
  PriceFactors factors;                                               ///< service tiers and speeds: "flex", "fast"
  PriceFactors regions;                                               ///< "us"
  std::int64_t webSearchNanos = 0, requestNanos = 0, imageNanos = 0;  ///< for one of each
  std::int64_t contextBound = 0;                                      ///< no prompt of this model has more tokens
  std::int64_t mostOutput = 0;                                        ///< no single answer has more tokens
  std::int64_t imageTokens = 0;                                       ///< no single image counts more
  Thinks thinks = Thinks::always;
};

struct PriceEntry {
  ProxyProvider provider = ProxyProvider::anthropic;
  std::string id;
  std::vector<std::string> aliases;
  std::optional<base::Date> from, to;  ///< `to` is the first instant it no longer holds
  std::shared_ptr<const PriceRates> rates;
  std::string source, checkedOn;  ///< where the prices were read, and the day
  std::string origin, version;    ///< of the text that held the entry, for the call record
};

/// The factors that a call is priced with, as thousandths.
struct PriceScale {
  std::int64_t tier = kFactorOne, region = kFactorOne;
  std::int64_t fees = kFactorOne;  ///< of what is not counted in tokens
};
/// What reported use costs, rounded up to a micro and at most kMostChargeMicros. Counts must not be negative.
Micros priceOf(const PriceRates& rates, const ProxyUsage& usage, const PriceScale& scale);

/// The tokens that a call may use at most.
struct TokenBounds {
  std::int64_t prompt = 0, output = 0, images = 0;
  bool mayWriteCache = false, mayWriteLong = false;
};
/// The least amount that no answer within the bounds can pass, rounded up; kMostMicros where it is above
/// kMostChargeMicros.
Micros worstOf(const PriceRates& rates, const TokenBounds& bounds, const PriceScale& scale);

}  // namespace sorvane::proxy
