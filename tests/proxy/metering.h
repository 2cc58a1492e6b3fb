#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "base/date.h"
#include "proxy/call_plan.h"

// Plans and answers as tests write them.
namespace sorvane::proxy::test {

inline const ProxyRoute kMessages{ProxyProvider::anthropic, ProxyDialect::anthropic, ProxyOperation::messages, "", ""};
inline const ProxyRoute kChat{ProxyProvider::openai, ProxyDialect::openai, ProxyOperation::chatCompletions, "", ""};
inline const ProxyRoute kResponses{ProxyProvider::openai, ProxyDialect::openai, ProxyOperation::responses, "", ""};
inline const ProxyRoute kEmbeddings{ProxyProvider::openai, ProxyDialect::openai, ProxyOperation::embeddings, "", ""};
inline const ProxyRoute kRouter{ProxyProvider::openrouter, ProxyDialect::openai, ProxyOperation::chatCompletions, "",
                                ""};

inline base::Date day(std::string_view date) {
  return *base::parseIso8601(std::string(date) + "T00:00:00Z");
}

inline const PriceBook& shippedBook() {
  static const PriceBook book = PriceBook::shipped();
  return book;
}

using Planned = std::variant<CallPlan, ProxyRefusal>;
inline Planned planned(const ProxyRoute& route, std::string body, bool strict = false,
                       const std::optional<AllowedModels>& models = std::nullopt) {
  return planCall(route, std::move(body), shippedBook(), {models, strict, day("2026-11-21")});
}
inline CallPlan planOf(const ProxyRoute& route, std::string body) {
  Planned result = planned(route, std::move(body));
  if (const auto* const refusal = std::get_if<ProxyRefusal>(&result)) throw std::runtime_error(refusal->message);
  return std::get<CallPlan>(std::move(result));
}

/// `answer` through a meter, in pieces of `step` bytes.
struct Metered {
  std::string passed;
  CallCharge charge;
};
inline Metered metered(const CallPlan& plan, std::string_view answer, std::size_t step, std::string_view contentType,
                       int status = 200, CallEnd end = CallEnd::complete) {
  AnswerMeter meter(plan);
  meter.head(status, contentType);
  Metered result;
  for (std::size_t at = 0; at < answer.size(); at += step) result.passed += meter.pass(answer.substr(at, step));
  result.passed += meter.rest();
  result.charge = meter.charge(end);
  return result;
}

}  // namespace sorvane::proxy::test
