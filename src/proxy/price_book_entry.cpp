#include "proxy/price_book_entry.h"

#include <algorithm>
#include <limits>

namespace sorvane::proxy {
namespace {

/// Tokens times a rate, times two factors: 2^127 holds 10^12 tokens at a million dollars a million.
__extension__ using Wide = __int128;

constexpr std::int64_t kMostNanos = 1'000'000LL * 1'000'000'000LL;
/// Counts above this are taken for it; no answer comes near.
constexpr std::int64_t kMostTokens = 1'000'000'000'000;
/// A token at 1 nano-dollar a million is 10^-15 dollars; a micro-dollar is 10^9 of that unit.
constexpr Wide kUnitsPerMicro = 1'000'000'000;
constexpr Wide kUnitsPerNano = 1'000'000;
constexpr Wide kScaleOne = static_cast<Wide>(kFactorOne) * kFactorOne;

Wide tokensTimes(std::int64_t tokens, Rate rate) {
  return static_cast<Wide>(std::clamp<std::int64_t>(tokens, 0, kMostTokens)) * rate;
}

/// Rounded up; `fees` are scaled by neither tier nor region.
Wide microsOf(Wide units, Wide fees, const PriceScale& scale) {
  const Wide total = units * scale.tier * scale.region + fees * kUnitsPerNano * scale.fees * kFactorOne;
  const Wide one = kUnitsPerMicro * kScaleOne;
  return (total + one - 1) / one;
}

const TokenRates& tierFor(const PriceRates& rates, Wide prompt) {
  const TokenRates* chosen = &rates.tiers.front().rates;
  for (const PriceTier& tier : rates.tiers) {
    if (prompt > tier.promptAbove) chosen = &tier.rates;
  }
  return *chosen;
}

/// The exponent behind an "e", and the text cut before it; nullopt for a malformed one.
std::optional<int> takeExponent(std::string_view& text) {
  const std::size_t mark = text.find_first_of("eE");
  if (mark == std::string_view::npos) return 0;
  std::string_view digits = text.substr(mark + 1);
  text = text.substr(0, mark);
  const bool negative = digits.starts_with('-');
  if (negative || digits.starts_with('+')) digits.remove_prefix(1);
  if (digits.empty() || digits.size() > 3) return std::nullopt;
  int value = 0;
  for (const char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return negative ? -value : value;
}

}  // namespace

std::optional<std::int64_t> nanosOf(std::string_view decimal, int shift) {
  const auto exponent = takeExponent(decimal);
  if (!exponent || decimal.empty() || decimal.size() > 64) return std::nullopt;
  // Every digit has a place; those from 10^-9 up make the value, any below that is not 0 rounds it up.
  const std::size_t point = std::min(decimal.find('.'), decimal.size());
  if (point == 0 || point + 1 == decimal.size()) return std::nullopt;
  Wide value = 0;
  bool roundUp = false;
  int place = static_cast<int>(point) - 1 + *exponent + shift + 9;
  for (std::size_t at = 0; at < decimal.size(); ++at) {
    if (at == point) continue;
    const char c = decimal[at];
    if (c < '0' || c > '9') return std::nullopt;
    if (place < 0) {
      roundUp = roundUp || c != '0';
    } else {
      value = value * 10 + (c - '0');
      if (value > kMostNanos) return std::nullopt;
    }
    --place;
  }
  for (; place >= 0 && value != 0; --place) {
    value *= 10;
    if (value > kMostNanos) return std::nullopt;
  }
  return static_cast<std::int64_t>(value) + (roundUp ? 1 : 0);
}

std::string decimalOf(std::int64_t nanos) {
  std::string text = std::to_string(nanos / 1'000'000'000);
  std::string rest = std::to_string(1'000'000'000 + nanos % 1'000'000'000).substr(1);
  rest.erase(rest.find_last_not_of('0') + 1);
  return rest.empty() ? text : text + "." + rest;
}

const std::int64_t* factorOf(const PriceFactors& factors, std::string_view word) {
  const auto found = std::find_if(factors.begin(), factors.end(), [&](const auto& row) { return row.first == word; });
  return found == factors.end() ? nullptr : &found->second;
}

std::int64_t dearestOf(const PriceFactors& factors) {
  std::int64_t most = kFactorOne;
  for (const auto& [word, factor] : factors) most = std::max(most, factor);
  return most;
}

Micros priceOf(const PriceRates& rates, const ProxyUsage& usage, const PriceScale& scale) {
  const Wide prompt = static_cast<Wide>(usage.inputTokens) + usage.cacheReadTokens + usage.cacheWrite5mTokens +
                      usage.cacheWrite1hTokens + usage.cacheWrite30mTokens + usage.cacheWrite12hTokens;
  const TokenRates& rate = tierFor(rates, prompt);
  const Wide units =
      tokensTimes(usage.inputTokens, rate.input) + tokensTimes(usage.cacheReadTokens, rate.cacheRead) +
      tokensTimes(usage.cacheWrite5mTokens, rate.write5m) + tokensTimes(usage.cacheWrite1hTokens, rate.write1h) +
      tokensTimes(usage.cacheWrite30mTokens, rate.write30m) + tokensTimes(usage.cacheWrite12hTokens, rate.write12h) +
      tokensTimes(usage.outputTokens, rate.output);
  const Wide fees = tokensTimes(usage.webSearches, rates.webSearchNanos) + rates.requestNanos;
  return static_cast<Micros>(std::min<Wide>(microsOf(units, fees, scale), kMostChargeMicros));
}

Micros worstOf(const PriceRates& rates, const TokenBounds& bounds, const PriceScale& scale) {
  Wide units = 0;
  for (const PriceTier& tier : rates.tiers) {
    if (&tier != &rates.tiers.front() && bounds.prompt <= tier.promptAbove) break;
    const TokenRates& rate = tier.rates;
    Rate input = std::max(rate.input, rate.cacheRead);
    if (bounds.mayWriteCache) input = std::max({input, rate.write5m, rate.write30m});
    if (bounds.mayWriteLong) input = std::max({input, rate.write1h, rate.write12h});
    units = std::max(units, tokensTimes(bounds.prompt, input) + tokensTimes(bounds.output, rate.output));
  }
  const Wide fees = tokensTimes(bounds.images, rates.imageNanos) + rates.requestNanos;
  const Wide micros = microsOf(units, fees, scale);
  return micros > kMostChargeMicros ? kMostMicros : static_cast<Micros>(micros);
}

}  // namespace sorvane::proxy
