#include "proxy/call_plan.h"

#include <algorithm>
#include <utility>

#include "proxy/body_facts.h"
#include "proxy/call_plan_refusal.h"
#include "proxy/call_plan_terms.h"

namespace sorvane::proxy {
namespace {

/// What providers add to a prompt: the frame of messages and the instructions of tools.
constexpr std::int64_t kAddedTokens = 4'096;
/// Limits above this are no limits.
constexpr std::int64_t kMostOutputTokens = 1'000'000'000;
/// OpenRouter's list names the price of a model's usual host; the host that answers may ask more, or reprice a long
/// prompt. The charge is the cost it reports.
constexpr std::int64_t kRouteSpread = 2 * kFactorOne;

bool isAllowed(const std::optional<AllowedModels>& models, ProxyProvider provider, std::string_view model) {
  if (!models) return true;
  const auto found = models->find(provider);
  return found != models->end() && std::find(found->second.begin(), found->second.end(), model) != found->second.end();
}

std::string_view limitField(ProxyOperation operation) {
  switch (operation) {
    case ProxyOperation::messages:
      return "max_tokens";
    case ProxyOperation::chatCompletions:
      return "max_completion_tokens";
    case ProxyOperation::responses:
      return "max_output_tokens";
    case ProxyOperation::embeddings:
      break;
  }
  return {};
}

/// A provider's word and what it is scaled by at worst; nullopt when it has no price.
std::optional<std::int64_t> worstFactor(const PriceFactors& factors, std::string_view word) {
  const std::int64_t* const factor = factorOf(factors, word);
  if (factor == nullptr) return std::nullopt;
  return std::max(*factor, kFactorOne);
}

/// The service tier at worst. Where the body leaves it open, the owner's settings at OpenAI choose, and may choose one
/// that the book has no factor for. Embeddings have no tiers.
std::optional<std::int64_t> tierFactor(const ProxyRoute& route, const PriceRates& rates, const BodyFacts& facts) {
  const std::string_view tier = facts.serviceTier ? std::string_view(*facts.serviceTier) : "auto";
  if (tier == "auto") {
    const bool open = route.provider == ProxyProvider::openai && route.operation != ProxyOperation::embeddings;
    return open ? std::max(dearestOf(rates.factors), kUnpricedTier) : kFactorOne;
  }
  if (tier == "default" || tier == "standard" || tier == "standard_only" || tier == "scale") return kFactorOne;
  return worstFactor(rates.factors, tier);
}

std::optional<std::int64_t> speedFactor(const PriceRates& rates, const BodyFacts& facts) {
  if (!facts.speed || *facts.speed == "standard") return kFactorOne;
  return worstFactor(rates.factors, *facts.speed);
}

std::optional<std::int64_t> regionFactor(const PriceRates& rates, const BodyFacts& facts) {
  if (!facts.region) return dearestOf(rates.regions);
  if (*facts.region == "global") return kFactorOne;
  return worstFactor(rates.regions, *facts.region);
}

/// The scale at worst, or what has no price.
std::variant<PriceScale, std::string> scaleOf(const ProxyRoute& route, const PriceRates& rates,
                                              const BodyFacts& facts) {
  const auto tier = tierFactor(route, rates, facts);
  if (!tier) return "the service tier \"" + shownWord(*facts.serviceTier) + "\" of this model";
  const auto speed = speedFactor(rates, facts);
  if (!speed) return "the speed \"" + shownWord(*facts.speed) + "\" of this model";
  const auto region = regionFactor(rates, facts);
  if (!region) return "the region \"" + shownWord(*facts.region) + "\" of this model";
  const std::int64_t spread = route.provider == ProxyProvider::openrouter ? kRouteSpread : kFactorOne;
  return PriceScale{std::max(*tier, *speed), *region * spread / kFactorOne, spread};
}

/// What the body itself asked for.
PriceScale unsaidScale(const PriceRates& rates, const BodyFacts& facts) {
  const auto asked = [](const PriceFactors& factors, const std::optional<std::string>& word) {
    const std::int64_t* const factor = word ? factorOf(factors, *word) : nullptr;
    return factor == nullptr ? kFactorOne : std::max(*factor, kFactorOne);
  };
  return {std::max(asked(rates.factors, facts.serviceTier), asked(rates.factors, facts.speed)),
          asked(rates.regions, facts.region), kFactorOne};
}

TokenBounds boundsOf(const ProxyRoute& route, const PriceRates& rates, const BodyFacts& facts, std::size_t bodyBytes) {
  TokenBounds bounds;
  // Every tokenizer makes at most one token of a byte.
  const auto text = static_cast<std::int64_t>(bodyBytes - std::min(facts.imageBytes, bodyBytes));
  bounds.prompt = text + kAddedTokens + multiplySaturating(facts.images, rates.imageTokens);
  if (facts.outside) bounds.prompt = std::max(bounds.prompt, rates.contextBound);
  // A list of texts to embed is many prompts.
  if (route.operation != ProxyOperation::embeddings) bounds.prompt = std::min(bounds.prompt, rates.contextBound);
  bounds.images = facts.images;
  const std::int64_t one = facts.mostOutput.value_or(0) + (facts.prediction ? text : 0);
  bounds.output = multiplySaturating(one, facts.choices);
  if (facts.compaction) {
    bounds.prompt *= 2;
    bounds.output = addSaturating(bounds.output, rates.mostOutput);
  }
  const bool anthropic = route.provider == ProxyProvider::anthropic;
  bounds.mayWriteCache = !anthropic || facts.cacheControl;
  bounds.mayWriteLong = !anthropic || facts.timeToLive;
  return bounds;
}

bool mayThinkUnseen(const PriceRates& rates, const BodyFacts& facts) {
  switch (rates.thinks) {
    case Thinks::never:
      return false;
    case Thinks::asked:
      return facts.thinking == BodyFacts::Thinking::on;
    case Thinks::always:
      return facts.thinking != BodyFacts::Thinking::off;
  }
  return true;
}

/// Puts a request for usage into the body's text; everything else stays as the client wrote it.
void askForUsage(std::string& body, const BodyFacts& facts) {
  if (facts.includeUsage) {
    body.replace(facts.includeUsage->begin, facts.includeUsage->end - facts.includeUsage->begin, "true");
  } else if (facts.streamOptions && facts.streamOptionsIsObject) {
    body.insert(facts.streamOptions->begin + 1,
                facts.streamOptionsIsEmpty ? R"("include_usage":true)" : R"("include_usage":true,)");
  } else if (facts.streamOptions) {
    body.replace(facts.streamOptions->begin, facts.streamOptions->end - facts.streamOptions->begin,
                 R"({"include_usage":true})");
  } else {
    body.insert(facts.firstMember, R"("stream_options":{"include_usage":true},)");
  }
}

/// The refusals that the body alone decides, before its model is looked up.
std::optional<ProxyRefusal> problemOf(const BodyReader& reader, const BodyFacts& facts) {
  if (reader.problem() != BodyProblem::none) return refusal::unreadableBody(reader.problem());
  if (facts.malformed) return refusal::invalidField(*facts.malformed);
  if (!facts.model) return refusal::invalidField("model");
  return std::nullopt;
}

/// The refusals of a body whose model has a price.
std::optional<ProxyRefusal> unpricedPart(const ProxyRoute& route, const BodyFacts& facts, bool refuseUnknownFields) {
  if (facts.unsupported) return refusal::operationNotSupported(*facts.unsupported);
  if (refuseUnknownFields && facts.unknownField) {
    return refusal::operationNotSupported("the field `" + shownWord(*facts.unknownField) + "`");
  }
  if (route.operation == ProxyOperation::embeddings) return std::nullopt;
  if (!facts.mostOutput) return refusal::maxTokensRequired(limitField(route.operation));
  if (*facts.mostOutput > kMostOutputTokens || facts.choices > kMostOutputTokens) return refusal::requestExceedsLimit();
  return std::nullopt;
}

}  // namespace

std::variant<CallPlan, ProxyRefusal> planCall(const ProxyRoute& route, std::string body, const PriceBook& prices,
                                              const PlanRules& rules) {
  BodyReader reader(body);
  BodyFacts facts = factsOf(route, reader);
  reader.finish();
  if (auto problem = problemOf(reader, facts)) return std::move(*problem);
  if (!isAllowed(rules.models, route.provider, *facts.model)) return refusal::modelNotAllowed(*facts.model);
  const PriceEntry* const entry = prices.find(route.provider, *facts.model, rules.at);
  if (entry == nullptr) return refusal::modelNotPriced(*facts.model);
  if (auto problem = unpricedPart(route, facts, rules.refuseUnknownFields)) return std::move(*problem);
  auto scale = scaleOf(route, *entry->rates, facts);
  if (const auto* const unpriced = std::get_if<std::string>(&scale)) return refusal::operationNotSupported(*unpriced);

  auto terms = std::make_shared<CallPlan::Terms>();
  terms->provider = route.provider;
  terms->operation = route.operation;
  terms->rates = entry->rates;
  terms->scale = std::get<PriceScale>(scale);
  terms->unsaid = unsaidScale(*entry->rates, facts);
  terms->mayCompact = facts.compaction;
  terms->bounds = boundsOf(route, *entry->rates, facts, body.size());
  terms->worstMicros = worstOf(*entry->rates, terms->bounds, terms->scale);
  if (terms->worstMicros > kMostChargeMicros) return refusal::requestExceedsLimit();
  // What was predicted and not taken is output too, and no byte of the answer shows it.
  terms->mayThinkUnseen = facts.prediction || mayThinkUnseen(*entry->rates, facts);
  terms->choices = facts.choices;
  terms->longWrites = facts.timeToLive;

  CallPlan plan;
  if (route.operation == ProxyOperation::chatCompletions) {
    if (route.provider == ProxyProvider::openrouter) {
      if (!facts.hasUsageField) body.insert(facts.firstMember, R"("usage":{"include":true},)");
    } else if (facts.streamed && !facts.asksForUsage) {
      askForUsage(body, facts);
      terms->dropsUsageEvent = true;
    }
  }
  plan.model = std::move(*facts.model);
  plan.body = std::move(body);
  plan.streamed = facts.streamed;
  plan.worstMicros = terms->worstMicros;
  plan.priceSource = entry->origin;
  plan.priceVersion = entry->version;
  plan.terms = std::move(terms);
  return plan;
}

}  // namespace sorvane::proxy
