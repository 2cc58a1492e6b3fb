// Any split of an answer gives the same bytes and the same charge; the bytes that go on are the provider's own but for
// the added event, as a second reader finds it; and no report within the bounds of the body costs more than was
// reserved.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <variant>
#include <vector>

#include "base/json.h"
#include "proxy/call_plan.h"
#include "proxy/call_plan_terms.h"

namespace {

using namespace sorvane;
using namespace sorvane::proxy;

void require(bool holds) {
  if (!holds) std::abort();
}

CallPlan planOf(ProxyProvider provider, ProxyOperation operation, std::string body) {
  static const PriceBook book = PriceBook::shipped();
  const std::optional<AllowedModels> any;
  const ProxyRoute route{provider, ProxyDialect::openai, operation, "", ""};
  return std::get<CallPlan>(
      planCall(route, std::move(body), book, {any, false, base::Date(std::chrono::seconds(1'795'219'200))}));
}

const std::vector<CallPlan>& plans() {
  using P = ProxyProvider;
  using O = ProxyOperation;
  static const std::vector<CallPlan> all{
      planOf(P::anthropic, O::messages,
             R"({"model":"claude-haiku-5-5","max_tokens":900,"system":[{"cache_control":{}}]})"),
      planOf(P::anthropic, O::messages,
             R"({"model":"claude-opus-4-6","max_tokens":900,"speed":"fast","a":{"cache_control":{"ttl":"1h"}}})"),
      planOf(P::openai, O::chatCompletions, R"({"model":"gpt-4.1","max_tokens":900,"stream":true})"),
      planOf(P::openai, O::chatCompletions, R"({"model":"gpt-6.1-terra","max_tokens":900,"n":2})"),
      planOf(P::openai, O::responses,
             R"({"model":"gpt-5.5","max_output_tokens":900,"previous_response_id":"r","service_tier":"flex"})"),
      planOf(P::openai, O::embeddings, R"({"model":"text-embedding-3-small","input":"a"})"),
      planOf(P::openrouter, O::chatCompletions, R"({"model":"x-ai/grok-4.3","max_tokens":900,"stream":true})"),
  };
  return all;
}

struct Outcome {
  std::string passed;
  CallCharge complete, broken;
};

Outcome run(const CallPlan& plan, std::string_view answer, std::size_t step, bool events, int status) {
  AnswerMeter meter(plan);
  meter.head(status, events ? "text/event-stream" : "application/json");
  Outcome outcome;
  for (std::size_t at = 0; at < answer.size(); at += step) outcome.passed += meter.pass(answer.substr(at, step));
  outcome.passed += meter.rest();
  outcome.complete = meter.charge(CallEnd::complete);
  outcome.broken = meter.charge(CallEnd::broken);
  return outcome;
}

bool same(const CallCharge& left, const CallCharge& right) {
  return left.chargedMicros == right.chargedMicros && left.usage == right.usage &&
         left.discrepancy == right.discrepancy && left.estimated == right.estimated;
}

/// Whether the event is the added one; nullopt where the second reader is stricter and so cannot tell.
std::optional<bool> isAdded(std::string_view event) {
  std::string data;
  for (std::size_t at = 0; at < event.size();) {
    const std::size_t end = std::min(event.find('\n', at), event.size());
    if (event.substr(at, 5) == "data:") data += std::string(event.substr(at + 5, end - at - 5)) + "\n";
    at = end + 1;
  }
  const auto json = base::parseJson(data);
  if (!json || event.find('\\') != std::string_view::npos) return std::nullopt;
  if (!json->is_object() || !json->contains("choices") || !json->contains("usage")) return false;
  const auto error = json->find("error");
  const bool failed = error != json->end() && error->is_structured();
  return (*json)["choices"] == base::Json::array() && (*json)["usage"].is_object() && !failed;
}

void checkPassed(std::string_view answer, const std::string& passed) {
  if (answer.find('\r') != std::string_view::npos) return;
  std::string expected;
  for (std::size_t at = 0; at < answer.size();) {
    // An event ends with an empty line, which may be its first.
    std::size_t end = at;
    while (end < answer.size() && answer[end] != '\n') end = std::min(answer.find('\n', end), answer.size() - 1) + 1;
    end = std::min(end + 1, answer.size());
    const std::string_view event = answer.substr(at, end - at);
    const auto added = isAdded(event);
    if (!added && event.find("choices") != std::string_view::npos) return;
    if (!added.value_or(false)) expected += event;
    at = end;
  }
  require(passed == expected);
}

/// A report that the fuzzer chooses within what the body allows costs at most the reservation.
void checkWorst(const CallPlan& plan, const std::uint8_t* data, std::size_t size) {
  if (size < 8 || plan.terms->operation == ProxyOperation::embeddings) return;
  std::int64_t left = plan.terms->bounds.prompt;
  const auto part = [&](std::uint8_t share) {
    const std::int64_t taken = left * share / 255;
    left -= taken;
    return taken;
  };
  const bool messages = plan.terms->operation == ProxyOperation::messages;
  const bool chat = plan.terms->operation == ProxyOperation::chatCompletions;
  const std::int64_t read = part(data[0]), write = part(data[1]), input = part(data[2]);
  const std::int64_t output = plan.terms->bounds.output * data[3] / 255;
  const std::int64_t split = write * data[4] / 255;
  base::Json usage, answer;
  if (messages) {
    usage = {{"input_tokens", input},
             {"cache_read_input_tokens", read},
             {"cache_creation_input_tokens", write},
             {"output_tokens", output}};
    const bool hour = plan.terms->bounds.mayWriteLong && data[5] % 2 == 1;
    usage["cache_creation"][hour ? "ephemeral_1h_input_tokens" : "ephemeral_5m_input_tokens"] = split;
    if (data[6] % 2 == 1) usage["inference_geo"] = "us";
    answer["type"] = "message";
  } else {
    const base::Json details{{"cached_tokens", read},
                             {"cache_write_tokens", write},
                             {"cache_write_tokens_details", {{"ttl_12h_tokens", split}}}};
    usage[chat ? "prompt_tokens" : "input_tokens"] = input + read + write;
    usage[chat ? "completion_tokens" : "output_tokens"] = output;
    usage[chat ? "prompt_tokens_details" : "input_tokens_details"] = details;
    const char* const tiers[] = {"default", "flex", "auto", "scale"};
    if (data[5] % 2 == 1) answer["service_tier"] = tiers[data[6] % 4];
  }
  answer["usage"] = usage;
  const CallCharge charge = run(plan, answer.dump(), 1 + data[7], false, 200).complete;
  const bool tellsNothing = input + read + write == 0;
  require(charge.estimated == tellsNothing && !charge.discrepancy && charge.chargedMicros <= plan.worstMicros);
  require(charge.usage.outputTokens == output);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  const CallPlan& plan = plans()[data[0] % plans().size()];
  const bool events = data[1] % 4 != 0;
  const int status = data[1] % 16 == 1 ? 500 : 200;
  const std::string_view answer(reinterpret_cast<const char*>(data + 3), size - 3);
  const Outcome whole = run(plan, answer, std::max<std::size_t>(answer.size(), 1), events, status);
  for (const std::size_t step : {std::size_t{1}, std::size_t{1} + data[2] % 61}) {
    const Outcome split = run(plan, answer, step, events, status);
    require(split.passed == whole.passed);
    require(same(split.complete, whole.complete) && same(split.broken, whole.broken));
  }
  if (!events || !plan.terms->dropsUsageEvent) {
    require(whole.passed == answer);
  } else {
    checkPassed(answer, whole.passed);
  }
  checkWorst(plan, data, size);
  return 0;
}
