#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "proxy/call_plan.h"
#include "proxy/metering.h"

namespace sorvane::proxy {
namespace {

using namespace test;

constexpr const char* kEvents = "text/event-stream; charset=utf-8";
constexpr const char* kJson = "application/json";

std::string data(const std::string& json) {
  return "data: " + json + "\n\n";
}

CallPlan sonnet(const std::string& more = "") {
  return planOf(kMessages, R"({"model":"claude-sonnet-5","max_tokens":1000,"stream":true)" + more + "}");
}
CallPlan chat(const std::string& model, const std::string& more = "") {
  return planOf(kChat, R"({"model":")" + model + R"(","max_tokens":1000,"stream":true)" + more + "}");
}

const std::string kStart =
    "event: message_start\n" +
    data(
        R"({"type":"message_start","message":{"content":[],"usage":{"input_tokens":100,"cache_read_input_tokens":1000,)"
        R"("cache_creation_input_tokens":300,"cache_creation":{"ephemeral_5m_input_tokens":100,)"
        R"("ephemeral_1h_input_tokens":200},"output_tokens":1,"service_tier":"standard"}}})");
const std::string kHello =
    data(R"({"type":"content_block_delta","index":0,"delta":{"type":"text_delta","text":"Hello, world"}})");
const std::string kEnd =
    data(R"({"type":"message_delta","delta":{"stop_reason":"end_turn"},"usage":{"output_tokens":50}})") +
    data(R"({"type":"message_stop"})");

struct Answer {
  const char* name;
  CallPlan plan;
  std::string body;
  const char* contentType;
  int status;
  CallCharge expected;
};

CallCharge charge(Micros micros, ProxyUsage usage, bool estimated = false, bool discrepancy = false) {
  return {micros, usage, discrepancy, estimated};
}

ProxyUsage anthropicUsage(std::int64_t output) {
  ProxyUsage usage;
  usage.inputTokens = 100;
  usage.cacheReadTokens = 1'000;
  usage.cacheWrite5mTokens = 100;
  usage.cacheWrite1hTokens = 200;
  usage.outputTokens = output;
  return usage;
}

ProxyUsage tokens(std::int64_t input, std::int64_t cached, std::int64_t output) {
  ProxyUsage usage;
  usage.inputTokens = input;
  usage.cacheReadTokens = cached;
  usage.outputTokens = output;
  return usage;
}

std::vector<Answer> answers() {
  std::vector<Answer> list;
  const auto add = [&](const char* name, CallPlan plan, std::string body, const char* type, CallCharge expected,
                       int status = 200) {
    list.push_back({name, std::move(plan), std::move(body), type, status, std::move(expected)});
  };
  // 100 x 2 + 1,000 x 0.2 + 100 x 2.5 + 200 x 4 + 50 x 10
  add("the last total of each count holds, the split of writes is the first event's", sonnet(),
      kStart + "event: ping\ndata: {\"type\":\"ping\"}\n\n" + kHello + kEnd, kEvents,
      charge(1'950, anthropicUsage(50)));
  // the same x 1.1, and x 1.1 is rounded up: 2,145
  add("the region that served is priced", sonnet(),
      kStart + data(R"({"type":"message_delta","delta":{"stop_reason":"end_turn"},)"
                    R"("usage":{"output_tokens":50,"inference_geo":"us"}})"),
      kEvents, charge(2'145, anthropicUsage(50)));
  ProxyUsage compacted = tokens(10, 0, 5);
  compacted.inputTokens += 40'000;
  compacted.outputTokens += 2'000;
  // 10 x 2 + 5 x 10, and 40,000 x 2 + 2,000 x 10 for the compaction that the total leaves out
  add("compactions are added", sonnet(R"(,"context_management":{"edits":[{"type":"compact_20260112"}]})"),
      R"({"type":"message","usage":{"input_tokens":10,"output_tokens":5,"iterations":[{"type":"compaction",)"
      R"("input_tokens":40000,"output_tokens":2000},{"type":"message","input_tokens":10,"output_tokens":5}]}})",
      kJson, charge(100'070, compacted));
  // 100,001 prompt tokens: 1 x 0.5 + 100,000 x 0.05 + 10 x 2.5 = 5,025.5
  add("a long prompt reprices the whole request",
      planOf(kMessages, R"({"model":"claude-haiku-5-5","max_tokens":1000,"a":")" + std::string(200'000, 'x') + "\"}"),
      R"({"type":"message","usage":{"input_tokens":1,"cache_read_input_tokens":100000,"output_tokens":10}})", kJson,
      charge(5'026, tokens(1, 100'000, 10)));
  ProxyUsage unsplit = tokens(0, 0, 1);
  unsplit.cacheWrite1hTokens = 1'000;
  // 1,000 x 4 + 1 x 10
  add("unsplit writes cost the dearer time to live that was asked for",
      sonnet(R"(,"system":[{"type":"text","text":"a","cache_control":{"ttl":"1h"}}])"),
      R"({"usage":{"cache_creation_input_tokens":1000,"input_tokens":0,"output_tokens":1},"type":"message"})", kJson,
      charge(4'010, unsplit));
  // (1,000 - 400) x 2 + 400 x 0.5 + 100 x 8
  add("counts that include the cache are taken apart", chat("gpt-4.1", R"(,"stream_options":{"include_usage":true})"),
      data(R"({"choices":[{"delta":{"content":"Hi"}}],"usage":null})") +
          data(R"({"choices":[],"service_tier":"default","usage":{"prompt_tokens":1000,"completion_tokens":100,)"
               R"("prompt_tokens_details":{"cached_tokens":400}}})") +
          data("[DONE]"),
      kEvents, charge(2'200, tokens(600, 400, 100)));
  // half of (600 x 2 + 400 x 0.5 + 100 x 8)
  add("the tier that served is priced", chat("gpt-4.1"),
      R"({"service_tier":"flex","usage":{"prompt_tokens":1000,"completion_tokens":100,)"
      R"("prompt_tokens_details":{"cached_tokens":400}},"choices":[{"message":{"content":"Hi"}}]})",
      kJson, charge(1'100, tokens(600, 400, 100)));
  ProxyUsage written = tokens(100, 200, 10);
  written.cacheWrite30mTokens = 300;
  written.cacheWrite12hTokens = 400;
  // 100 x 1 + 200 x 0.05 + 300 x 1.25 + 400 x 2.5 + 10 x 5
  add("the event that ends a response carries its usage, however long it is",
      planOf(kResponses,
             R"({"model":"gpt-6.1-terra","max_output_tokens":1000,"stream":true,"service_tier":"default"})"),
      "event: response.completed\n" +
          data(
              R"({"type":"response.completed","response":{"output":[{"text":")" + std::string(300'000, 'y') +
              R"("}],"usage":{"input_tokens":1000,"input_tokens_details":{"cached_tokens":200,"cache_write_tokens":700,)"
              R"("cache_write_tokens_details":{"ttl_30m_tokens":300,"ttl_12h_tokens":400}},"output_tokens":10}}})"),
      kEvents, charge(1'535, written));
  // 1,000,000 x 0.02, behind vectors that are not kept
  std::string vectors = R"({"data":[{"embedding":[)";
  for (int at = 0; at < 20'000; ++at) vectors += "-0.0123,";
  add("embeddings cost their input",
      planOf(kEmbeddings, R"({"model":"text-embedding-3-small","input":")" + std::string(1'000'000, 'x') + "\"}"),
      vectors + R"(0]}],"usage":{"prompt_tokens":1000000,"total_tokens":1000000}})", kJson,
      charge(20'000, tokens(1'000'000, 0, 0)));
  ProxyUsage told = tokens(10, 0, 5);
  told.reportedMicros = 15;
  const CallPlan routed = planOf(kRouter, R"({"model":"x-ai/grok-4.3","max_tokens":1000,"stream":true})");
  const CallPlan many =
      planOf(kRouter, R"({"model":"x-ai/grok-4.3","max_tokens":1000,"user":")" + std::string(10'000, 'x') + "\"}");
  add("a cost that is told is charged, rounded up", routed,
      ": PROCESSING\n\n" +
          data(R"({"choices":[{"delta":{"content":"Hi"},"finish_reason":"stop"}],"usage":{"prompt_tokens":10,)"
               R"("completion_tokens":5,"cost":1.41e-05,"cost_details":{"upstream_inference_cost":9}}})"),
      kEvents, charge(15, told));
  told.reportedMicros = 19'950'000;
  add("with the owner's own key the host's bill is added", routed,
      R"({"choices":[{}],"usage":{"prompt_tokens":10,"completion_tokens":5,"cost":0.95,"is_byok":true,)"
      R"("cost_details":{"upstream_inference_cost":19}}})",
      kJson, charge(19'950'000, told, false, /*discrepancy=*/true));
  // twice (10,000 x 1.25 + 500 x 2.5) where no cost is told; the fee of 0.00095 beside it where the host's bill is not
  add("a cost that is not told is the dearest host's", many,
      R"({"choices":[{}],"usage":{"prompt_tokens":10000,"completion_tokens":500}})", kJson,
      charge(27'500, tokens(10'000, 0, 500)));
  add("a bill that is not told is the dearest host's", many,
      R"({"choices":[{}],"usage":{"prompt_tokens":10000,"completion_tokens":500,"cost":0.00095,"is_byok":true,)"
      R"("cost_details":{"upstream_inference_cost":null}}})",
      kJson, charge(28'450, tokens(10'000, 0, 500)));
  // twice (1,000 x 2 + 100 x 8), within what an open tier reserves
  add("a tier that the book does not know is the dearest", chat("gpt-4.1"),
      R"({"service_tier":"fast","usage":{"prompt_tokens":1000,"completion_tokens":100},"choices":[{}]})", kJson,
      charge(5'600, tokens(1'000, 0, 100)));
  const std::string so = R"("usage":{"prompt_tokens":1000,"completion_tokens":1}})";
  add("a usage before the end is what was used so far", chat("gpt-4.1"),
      data(R"({"choices":[{"delta":{}}],)" + so) +
          data(R"({"choices":[{"delta":{}}],"usage":{"prompt_tokens":1000,"completion_tokens":100}})") + data("[DONE]"),
      kEvents, charge(2'800, tokens(1'000, 0, 100)));
  add("without an end it is an estimate", chat("gpt-4.1"), data(R"({"choices":[{"delta":{}}],)" + so), kEvents,
      charge(2'008, tokens(1'000, 0, 1), /*estimated=*/true));
  // the other answer of two is still being written
  add("one end of two is none", chat("gpt-4.1", R"(,"n":2)"),
      data(R"({"choices":[{"delta":{},"finish_reason":"stop"}],)" + so), kEvents,
      charge(2'008, tokens(1'000, 0, 1), /*estimated=*/true));
  const CallPlan thinks = planOf(kResponses, R"({"model":"gpt-5","max_output_tokens":1000,"stream":true})");
  // 100 x 1.25 + 1,000 x 10
  add("a response's usage counts with its last event", thinks,
      data(R"({"type":"response.in_progress","response":{"usage":{"input_tokens":100,"output_tokens":1}}})"), kEvents,
      charge(10'125, tokens(100, 0, 1), /*estimated=*/true));
  add("a prompt of no tokens is no report", chat("gpt-4.1"),
      R"({"choices":[{}],"usage":{"prompt_tokens":0,"completion_tokens":0}})", kJson,
      charge(chat("gpt-4.1").worstMicros, {}, /*estimated=*/true));
  // 2,000 x 10 is more than the 1,000 that were asked for
  add("more than was reserved is a discrepancy", planOf(kMessages, R"({"model":"claude-sonnet-5","max_tokens":1})"),
      R"({"type":"message","usage":{"input_tokens":1,"output_tokens":2000}})", kJson,
      charge(20'002, tokens(1, 0, 2'000), false, /*discrepancy=*/true));
  add("an error costs nothing", sonnet(), R"({"type":"error","error":{"type":"overloaded_error"}})", kJson,
      charge(0, {}), 529);
  return list;
}

TEST(AnswerMeter, chargesWhatIsReportedWhereverTheAnswerIsSplit) {
  for (const Answer& row : answers()) {
    for (const std::size_t step : {std::size_t{1}, std::size_t{7}, std::size_t{4'096}, row.body.size()}) {
      const Metered result = metered(row.plan, row.body, step, row.contentType, row.status);
      EXPECT_EQ(result.charge.chargedMicros, row.expected.chargedMicros) << row.name;
      EXPECT_EQ(result.charge.usage, row.expected.usage) << row.name;
      EXPECT_EQ(result.charge.discrepancy, row.expected.discrepancy) << row.name;
      EXPECT_EQ(result.charge.estimated, row.expected.estimated) << row.name;
    }
  }
}

TEST(AnswerMeter, onlyTheAddedEventIsTakenOut) {
  const std::string text = data(R"({"choices":[{"delta":{"content":"a"}}],"usage":null})"),
                    filters = data(R"({"choices":[],"prompt_filter_results":[]})"),
                    usage = data(R"({"choices":[],"usage":{"prompt_tokens":1,"completion_tokens":1}})"),
                    full = data(R"({"choices":[{"delta":{}}],"usage":{"prompt_tokens":1,"completion_tokens":1}})"),
                    huge = data(R"({"pad":")" + std::string(70'000, 'x') + R"(","choices":[],"usage":{}})"),
                    failed = data(R"({"choices":[],"error":{"code":502},"usage":{}})"), done = data("[DONE]"),
                    comment = ": hold\n\n";
  const auto crlf = [](std::string lines) {
    for (std::size_t at = 0; (at = lines.find('\n', at)) != std::string::npos; at += 2) lines.insert(at, "\r");
    return lines;
  };
  const struct {
    std::string sent, passed;
  } cases[] = {
      {filters + text + usage + done, filters + text + done},
      {text + full + done, text + full + done},
      {text + failed + done, text + failed + done},
      {comment + text + comment + usage + comment + done, comment + text + comment + comment + done},
      {crlf(text + usage + done), crlf(text + done)},
      {text + huge + done, text + huge + done},
      {text + usage.substr(0, usage.size() - 1), text},
      {text + "data: {\"choices\":[", text + "data: {\"choices\":["},
      {"data: not json\n\n" + usage + "\n\n", "data: not json\n\n\n\n"},
  };
  const CallPlan asked = chat("gpt-4.1", R"(,"stream_options":{"include_usage":true})"), added = chat("gpt-4.1");
  for (const auto& row : cases) {
    for (const std::size_t step : {std::size_t{1}, std::size_t{3}, std::size_t{50}, row.sent.size()}) {
      EXPECT_EQ(metered(added, row.sent, step, "Text/Event-Stream").passed, row.passed) << step;
      EXPECT_EQ(metered(asked, row.sent, step, kEvents).passed, row.sent) << step;
    }
  }
  EXPECT_EQ(metered(added, usage, 5, kJson).passed, usage) << "an answer that is no stream has no added event";
}

TEST(AnswerMeter, anEventLeavesAsSoonAsItCannotBeTheAddedOne) {
  AnswerMeter meter(chat("gpt-4.1"));
  meter.head(200, kEvents);
  EXPECT_EQ(meter.pass("data: {\"id\":1,"), "");
  EXPECT_EQ(meter.pass("\"choices\":[{"), "data: {\"id\":1,\"choices\":[{");
  EXPECT_EQ(meter.pass("}]}\n\n"), "}]}\n\n");
}

TEST(AnswerMeter, aBrokenAnswerIsChargedByWhatWasSeen) {
  const CallPlan plain = planOf(kMessages, R"({"model":"claude-sonnet-4-6","max_tokens":1000})");
  const CallPlan thinking =
      planOf(kMessages, R"({"model":"claude-sonnet-4-6","max_tokens":1000,"thinking":{"type":"enabled"}})");
  const CallPlan open = chat("gpt-4.1"), predicted = chat("gpt-4.1", R"(,"prediction":{"content":"abc"})");
  const CallPlan routed = planOf(kRouter, R"({"model":"x-ai/grok-4.3","max_tokens":1000,"reasoning_effort":"none"})");
  const std::string said = data(R"({"choices":[{"delta":{"content":"Hello, world"}}]})");
  const struct {
    const char* name;
    const CallPlan& plan;
    std::string body;
    Micros micros;
  } cases[] = {
      // 100 x 3 + 1,000 x 0.3 + 100 x 3.75 + 200 x 6 + 22 x 15, where 22 bytes of "text_delta" and the text
      // are more than the one token that was told
      {"bytes of text stand for tokens", plain, kStart + kHello, 2'505},
      // 500 tokens were told, fewer bytes came
      {"a larger report holds", plain,
       kStart + kHello + data(R"({"type":"message_delta","delta":{"stop_reason":null},"usage":{"output_tokens":500}})"),
       9'675},
      // the 1,000 that were reserved: 2,175 + 15,000
      {"thinking is not seen", thinking, kStart + kHello, 17'175},
      {"an event that was cut does not count", plain, kStart.substr(0, kStart.size() - 4), plain.worstMicros},
      {"nothing was seen", plain, "", plain.worstMicros},
      // input as reserved: (51 + 4,096) x 2, and 12 bytes x 8; twice, for the open tier
      {"without a report the input is what was reserved", open, said, 2 * ((51 + 4'096) * 2 + 12 * 8)},
      {"a host may think although it was told not to", routed, said, routed.worstMicros},
      {"a prediction that is not taken is not seen", predicted, said, predicted.worstMicros},
  };
  for (const auto& row : cases) {
    const CallCharge result = metered(row.plan, row.body, 11, kEvents, 200, CallEnd::broken).charge;
    EXPECT_EQ(result.chargedMicros, row.micros) << row.name;
    EXPECT_TRUE(result.estimated) << row.name;
    EXPECT_FALSE(result.discrepancy) << row.name;
  }
  const CallCharge ended = metered(plain, kStart + kHello + kEnd, 11, kEvents, 200, CallEnd::broken).charge;
  EXPECT_EQ(ended.chargedMicros, 2'925) << "what was reported to the end is no estimate";
  EXPECT_FALSE(ended.estimated);
  const std::string half = R"({"type":"message","usage":{"input_tokens":10},"content":"Hello"})";
  EXPECT_EQ(metered(plain, half, 11, kJson).charge.chargedMicros, plain.worstMicros) << "half a report is none";
  AnswerMeter never(plain);
  EXPECT_EQ(never.charge(CallEnd::broken).chargedMicros, plain.worstMicros);
}

TEST(AnswerMeter, hostileAnswersNeitherPassTheCapNorLoseBytes) {
  const CallPlan plan = sonnet();
  const std::string most = R"({"type":"message","usage":{"input_tokens":99999999999999999999,"output_tokens":)"
                           R"(99999999999999999999,"cache_read_input_tokens":99999999999999999999}})";
  const Metered capped = metered(plan, most, 5, kJson);
  EXPECT_EQ(capped.charge.chargedMicros, kMostChargeMicros);
  EXPECT_TRUE(capped.charge.discrepancy);
  for (const std::string& body :
       {std::string(100'000, '['), std::string(100'000, '{'), R"({"usage":)" + std::string(100'000, '['),
        std::string(R"({"type":"message","usage":{"input_tokens":-5,"output_tokens":1e3}})"),
        std::string("\xff\0{", 3)}) {
    const Metered result = metered(plan, body, 4'096, kJson);
    EXPECT_EQ(result.passed, body);
    EXPECT_EQ(result.charge.chargedMicros, plan.worstMicros);
    EXPECT_TRUE(result.charge.estimated);
  }
}

}  // namespace
}  // namespace sorvane::proxy
