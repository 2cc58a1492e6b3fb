// What a second parser reads strictly is read here too; the planned body says the same as the client's but for the
// request for usage, and planning it again changes nothing.
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <variant>

#include "base/json.h"
#include "proxy/body_reader.h"
#include "proxy/call_plan.h"

namespace {

using namespace sorvane;
using namespace sorvane::proxy;

void require(bool holds) {
  if (!holds) std::abort();
}

bool isReadable(std::string_view text) {
  BodyReader reader(text);
  reader.skip();
  return reader.finish();
}

void checkPlan(const ProxyRoute& route, const std::string& body, const base::Json* parsed) {
  static const PriceBook book = PriceBook::shipped();
  const std::optional<AllowedModels> any;
  const PlanRules rules{any, false, base::Date(std::chrono::seconds(1'795'219'200))};
  auto result = planCall(route, body, book, rules);
  const auto* const plan = std::get_if<CallPlan>(&result);
  if (plan == nullptr) return;
  require(plan->worstMicros >= 0 && plan->worstMicros <= kMostChargeMicros);
  require(isReadable(plan->body));
  const auto again = planCall(route, plan->body, book, rules);
  require(std::holds_alternative<CallPlan>(again) && std::get<CallPlan>(again).body == plan->body);
  if (parsed == nullptr) return;
  base::Json expected = *parsed;
  require(expected["model"] == plan->model);
  if (plan->body != body) {
    if (route.provider == ProxyProvider::openrouter) {
      expected["usage"]["include"] = true;
    } else {
      expected["stream_options"]["include_usage"] = true;
    }
  }
  require(base::Json::parse(plan->body) == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  const auto parsed = base::parseJson(body);
  if (parsed) require(isReadable(body));
  const ProxyRoute routes[] = {
      {ProxyProvider::anthropic, ProxyDialect::anthropic, ProxyOperation::messages, "", ""},
      {ProxyProvider::openai, ProxyDialect::openai, ProxyOperation::chatCompletions, "", ""},
      {ProxyProvider::openai, ProxyDialect::openai, ProxyOperation::responses, "", ""},
      {ProxyProvider::openai, ProxyDialect::openai, ProxyOperation::embeddings, "", ""},
      {ProxyProvider::openrouter, ProxyDialect::openai, ProxyOperation::chatCompletions, "", ""},
  };
  for (const ProxyRoute& route : routes) checkPlan(route, body, parsed ? &*parsed : nullptr);
  return 0;
}
