#include "proxy/call_plan.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "proxy/body_reader.h"
#include "proxy/metering.h"
#include "support/corpus.h"

namespace sorvane::proxy {
namespace {

using namespace test;

/// The body with "PAD" made as long as it takes to have `size` bytes.
std::string padded(std::string body, std::size_t size) {
  const std::size_t at = body.find("PAD");
  body.replace(at, 3, size - (body.size() - 3), 'x');
  return body;
}

struct Worst {
  const ProxyRoute& route;
  const char* body;  ///< of 1,000 bytes once padded, so that its text is at most 1,000 + 4,096 tokens
  Micros micros;
};

// A dollar for a million tokens is a micro-dollar for each.
TEST(CallPlan, theWorstCaseIsThatOfTheDearestRateThatMayApply) {
  const std::string image = R"({"type":"image","source":{"type":"base64","media_type":"image/png","data":")" +
                            std::string(500, 'A') + R"("}})";
  const std::string withImage = R"({"model":"claude-sonnet-5","max_tokens":1000,"inference_geo":"global","messages":[)"
                                R"({"role":"user","content":[{"type":"text","text":"PAD"},)" +
                                image + "]}]}";
  const Worst cases[] = {
      // (5,096 x 2 + 1,000 x 10) x 1.1 for a region that the body leaves open
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":1000,"messages":"PAD"})", 22'212},
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":1000,"inference_geo":"global","messages":"PAD"})", 20'192},
      // 5,096 x 2.5 for a write that is kept 5 minutes; x 4 where it may be an hour
      {kMessages,
       R"({"model":"claude-sonnet-5","max_tokens":1000,"inference_geo":"global","cache_control":{},"messages":"PAD"})",
       22'740},
      {kMessages,
       R"({"model":"claude-sonnet-5","max_tokens":1000,"inference_geo":"global",
           "system":[{"type":"text","text":"PAD","cache_control":{"type":"ephemeral","t\u0074l":"1h"}}]})",
       30'384},
      // (5,096 x 5 + 1,000 x 25) x 6
      {kMessages,
       R"({"model":"claude-opus-4-6","max_tokens":1000,"inference_geo":"global","speed":"fast","messages":"PAD"})",
       302'880},
      // pages are read as images, so a document may fill the whole window: 2,000,000 x 2 + 1,000 x 10
      {kMessages,
       R"({"model":"claude-sonnet-5","max_tokens":1000,"inference_geo":"global","messages":[{"role":"user","content":
           [{"type":"document","source":{"type":"base64","data":"PAD"}}]}]})",
       4'010'000},
      // what a tool was given is text, whatever it looks like
      {kMessages,
       R"({"model":"claude-sonnet-5","max_tokens":1000,"inference_geo":"global","messages":[{"role":"assistant",
           "content":[{"type":"tool_use","input":{"type":"document","content":[{"type":"document"}]},"id":"PAD"}]}]})",
       20'192},
      // (1,000 - 500 + 4,096 + 6,000) x 2 + 1,000 x 10: the image's bytes are no text
      {kMessages, withImage.c_str(), 31'192},
      // a compaction reads the prompt again and may write 256,000 tokens: 10,192 x 2 + 257,000 x 10
      {kMessages,
       R"({"model":"claude-sonnet-5","max_tokens":1000,"inference_geo":"global",
           "context_management":{"edits":[{"type":"compact_20260112"}]},"messages":"PAD"})",
       2'590'384},
      // twice (5,096 x 2 + 3 x 1,000 x 8): an open tier may be one that the book does not know; the larger of two
      // limits holds
      {kChat, R"({"model":"gpt-4.1","max_tokens":1000,"max_completion_tokens":10,"n":3,"messages":"PAD"})", 68'384},
      {kChat, R"({"model":"gpt-4.1","max_tokens":1000,"service_tier":"auto","messages":"PAD"})", 36'384},
      {kChat, R"({"model":"gpt-4.1","max_tokens":1000,"service_tier":"default","messages":"PAD"})", 18'192},
      // (5,096 x 2.5 + 1,000 x 5) x 2: the owner's settings may choose the fast tier
      {kChat, R"({"model":"gpt-6.1-terra","max_completion_tokens":1000,"messages":"PAD"})", 35'480},
      {kChat, R"({"model":"gpt-6.1-terra","max_completion_tokens":1000,"service_tier":"default","messages":"PAD"})",
       17'740},
      // flex is half the price, if it is what the call gets: 5,096 x 1.25 + 1,000 x 10
      {kResponses, R"({"model":"gpt-5","max_output_tokens":1000,"service_tier":"flex","input":"PAD"})", 16'370},
      // twice (2,000,000 x 1.25 + 1,000 x 10)
      {kResponses, R"({"model":"gpt-5","max_output_tokens":1000,"previous_response_id":"r","input":"PAD"})", 5'020'000},
      {kResponses, R"({"model":"gpt-5","max_output_tokens":1000,"input":[{"id":"PAD"}]})", 5'020'000},
      {kResponses, R"({"model":"gpt-5","max_output_tokens":1000,"input":[{"type":"reasoning","id":"PAD"}]})",
       5'020'000},
      // in the body: twice (5,096 x 1.25 + 1,000 x 10)
      {kResponses,
       R"({"model":"gpt-5","max_output_tokens":1000,"input":[{"type":"reasoning","id":"PAD","encrypted_content":"e"}]})",
       32'740},
      {kResponses,
       R"({"model":"gpt-5","max_output_tokens":1000,"input":[{"role":"user","content":[{"type":"input_image",
           "image_url":"https://example.test/PAD"}]}]})",
       5'020'000},
      // 5,096 x 0.02, rounded up
      {kEmbeddings, R"({"model":"text-embedding-3-small","input":["PAD"]})", 102},
      // twice (5,096 x 0.435 + 1,000 x 0.87)
      {kRouter, R"({"model":"deepseek/deepseek-v4-pro","max_tokens":1000,"messages":"PAD"})", 6'174},
  };
  for (const Worst& row : cases)
    EXPECT_EQ(planOf(row.route, padded(row.body, 1'000)).worstMicros, row.micros) << row.body;
}

TEST(CallPlan, aPromptAboveATierIsReservedAtItsPrice) {
  const char* const body =
      R"({"model":"claude-haiku-5-5","max_tokens":1000,"inference_geo":"global","messages":"PAD"})";
  // 100,000 x 0.10 + 1,000 x 0.50
  EXPECT_EQ(planOf(kMessages, padded(body, 95'904)).worstMicros, 10'500);
  // 100,001 x 0.50 + 1,000 x 2.50
  EXPECT_EQ(planOf(kMessages, padded(body, 95'905)).worstMicros, 52'501);
}

struct Refused {
  const ProxyRoute& route;
  const char* body;
  int status;
  const char* code;
};

TEST(CallPlan, whatCannotBePricedIsRefused) {
  const Refused cases[] = {
      {kMessages, R"({"model":"claude-sonnet-9","max_tokens":1})", 400, "model_not_priced"},
      {kMessages, R"({"model":"claude-sonnet","max_tokens":1})", 400, "model_not_priced"},
      {kMessages, R"({"model":"claude-fable-5-2","max_tokens":1})", 400, "model_not_priced"},
      {kMessages, R"({"max_tokens":1})", 400, "invalid_body"},
      {kMessages, R"({"model":7,"max_tokens":1})", 400, "invalid_body"},
      {kMessages, R"({"model":"claude-sonnet-5"})", 400, "max_tokens_required"},
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":null})", 400, "max_tokens_required"},
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":-1})", 400, "invalid_body"},
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":1.5})", 400, "invalid_body"},
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":1,"stream":"true"})", 400, "invalid_body"},
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":99999999999999999999})", 402, "request_exceeds_limit"},
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":1,"speed":"fast"})", 400, "operation_not_supported"},
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":1,"inference_geo":"moon"})", 400,
       "operation_not_supported"},
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":1,"tools":[{"name":"a"},{"type":"web_search_20250305"}]})",
       400, "operation_not_supported"},
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":1,"mcp_servers":[{}]})", 400, "operation_not_supported"},
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":1,"messages":[{"role":"user",
                      "content":[{"type":"container_upload"}]}]})",
       400, "operation_not_supported"},
      {kChat, R"({"model":"gpt-5","messages":[]})", 400, "max_tokens_required"},
      {kChat, R"({"model":"gpt-5","max_tokens":1,"n":0})", 400, "invalid_body"},
      {kChat, R"({"model":"gpt-5","max_tokens":1000000000,"n":1000000000})", 402, "request_exceeds_limit"},
      {kChat, R"({"model":"gpt-5","max_tokens":1,"service_tier":"priority"})", 400, "operation_not_supported"},
      {kChat, R"({"model":"gpt-5","max_tokens":1,"modalities":["text","audio"]})", 400, "operation_not_supported"},
      {kChat, R"({"model":"gpt-5","max_tokens":1,"web_search_options":{}})", 400, "operation_not_supported"},
      {kResponses, R"({"model":"gpt-5","max_output_tokens":1,"background":true})", 400, "operation_not_supported"},
      {kResponses, R"({"model":"gpt-5","max_output_tokens":1,"prompt":{"id":"p"}})", 400, "operation_not_supported"},
      {kResponses, R"({"model":"gpt-5","max_output_tokens":1,"tools":[{"type":"mcp"}]})", 400,
       "operation_not_supported"},
      {kRouter, R"({"model":"x-ai/grok-4.3","max_tokens":1,"models":["a"]})", 400, "operation_not_supported"},
      {kRouter, R"({"model":"x-ai/grok-4.3","max_tokens":1,"plugins":[{"id":"web"}]})", 400, "operation_not_supported"},
      {kRouter, R"({"model":"x-ai/grok-4.3","max_tokens":1,"usage":{"include":false}})", 400,
       "operation_not_supported"},
      {kRouter, R"({"model":"x-ai/grok-4.3","max_tokens":1,"usage":null})", 400, "operation_not_supported"},
      {kRouter, R"({"model":"x-ai/grok-4.3","max_tokens":1,"provider":{"order":["a"]}})", 400,
       "operation_not_supported"},
      {kRouter, R"({"model":"x-ai/grok-4.3","max_tokens":1,"provider":{"allow_fallbacks":true}})", 400,
       "operation_not_supported"},
      {kRouter, R"({"model":"x-ai/grok-4.3","max_tokens":1,"provider":7})", 400, "invalid_body"},
      {kRouter, R"({"model":"x-ai/grok-4.3","max_tokens":1,"messages":[{"role":"user","content":[{"type":"file"}]}]})",
       400, "operation_not_supported"},
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":1,"m\u0061x_tokens":9})", 400, "duplicate_key"},
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":1,"metadata":{"a":{"b":1,"b":1}}})", 400, "duplicate_key"},
      {kMessages, "{\"model\":\"claude-sonnet-5\",\"max_tokens\":1,\"a\":\"\xff\"}", 400, "invalid_body"},
      {kMessages, R"({"model":"claude-sonnet-5","max_tokens":1} {})", 400, "invalid_body"},
      {kMessages, R"([])", 400, "invalid_body"},
      {kMessages, "", 400, "invalid_body"},
  };
  for (const Refused& row : cases) {
    const Planned result = planned(row.route, row.body);
    const auto* const refusal = std::get_if<ProxyRefusal>(&result);
    ASSERT_NE(refusal, nullptr) << row.body;
    EXPECT_EQ(refusal->code, row.code) << row.body;
    EXPECT_EQ(refusal->status, row.status) << row.body;
    EXPECT_NE(refusal->message.find("Nothing was sent. "), std::string::npos) << refusal->message;
  }
}

TEST(CallPlan, anUnknownFieldPassesUnlessTheOwnerIsStrict) {
  const char* const body = R"({"model":"claude-sonnet-5","max_tokens":1,"new_field":{"a":[1]}})";
  EXPECT_TRUE(std::holds_alternative<CallPlan>(planned(kMessages, body)));
  const Planned strict = planned(kMessages, body, /*strict=*/true);
  ASSERT_TRUE(std::holds_alternative<ProxyRefusal>(strict));
  EXPECT_EQ(std::get<ProxyRefusal>(strict).message,
            "sorvane cannot tell in advance what the field `new_field` may cost. Nothing was sent. Leave it out of the "
            "request.");
}

TEST(CallPlan, aModelOutsideTheGrantIsRefusedBeforeItsPriceIsTold) {
  const AllowedModels models{{ProxyProvider::anthropic, {"claude-sonnet-5"}}};
  const auto codeOf = [&](const ProxyRoute& route, const char* body) {
    const Planned result = planned(route, body, false, models);
    const auto* const refusal = std::get_if<ProxyRefusal>(&result);
    return refusal == nullptr ? std::string() : refusal->code + " " + std::to_string(refusal->status);
  };
  EXPECT_EQ(codeOf(kMessages, R"({"model":"claude-sonnet-5","max_tokens":1})"), "");
  EXPECT_EQ(codeOf(kMessages, R"({"model":"claude-sonnet-9","max_tokens":1})"), "model_not_allowed 403");
  EXPECT_EQ(codeOf(kChat, R"({"model":"claude-sonnet-5","max_tokens":1})"), "model_not_allowed 403");
}

TEST(CallPlan, usageIsAskedForWithoutRewritingTheBody) {
  const struct {
    const ProxyRoute& route;
    const char *before, *after;
  } cases[] = {
      {kChat, R"( { "stream":true,"max_tokens":1,"model":"gpt-5" })",
       R"( {"stream_options":{"include_usage":true}, "stream":true,"max_tokens":1,"model":"gpt-5" })"},
      {kChat, R"({"stream":true,"stream_options": { },"max_tokens":1,"model":"gpt-5"})",
       R"({"stream":true,"stream_options": {"include_usage":true },"max_tokens":1,"model":"gpt-5"})"},
      {kChat, R"({"stream":true,"stream_options":{"a":1},"max_tokens":1,"model":"gpt-5"})",
       R"({"stream":true,"stream_options":{"include_usage":true,"a":1},"max_tokens":1,"model":"gpt-5"})"},
      {kChat, R"({"stream":true,"stream_options":{"include_usage": false},"max_tokens":1,"model":"gpt-5"})",
       R"({"stream":true,"stream_options":{"include_usage": true},"max_tokens":1,"model":"gpt-5"})"},
      {kChat, R"({"stream_options":null ,"stream":true,"max_tokens":1,"model":"gpt-5"})",
       R"({"stream_options":{"include_usage":true} ,"stream":true,"max_tokens":1,"model":"gpt-5"})"},
      {kChat, R"({"stream":true,"stream_options":{"include_usage":true},"max_tokens":1,"model":"gpt-5"})", nullptr},
      {kChat, R"({"stream":false,"max_tokens":1,"model":"gpt-5"})", nullptr},
      {kMessages, R"({"stream":true,"max_tokens":1,"model":"claude-sonnet-5"})", nullptr},
      {kResponses, R"({"stream":true,"max_output_tokens":1,"model":"gpt-5"})", nullptr},
      {kRouter, R"({"max_tokens":1,"model":"x-ai/grok-4.3"})",
       R"({"usage":{"include":true},"max_tokens":1,"model":"x-ai/grok-4.3"})"},
      {kRouter,
       R"({"max_tokens":1,"model":"x-ai/grok-4.3","usage":{"include":true},)"
       R"("provider":{"allow_fallbacks":false,"zdr":true,"data_collection":"deny"}})",
       nullptr},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(planOf(row.route, row.before).body, row.after == nullptr ? row.before : row.after);
  }
}

TEST(BodyReader, readsTheParsingSuiteAsItIsMeant) {
  int accepted = 0, refused = 0, either = 0;
  for (const auto& file : std::filesystem::directory_iterator(sorvane::test::corpus("json_parsing/test_parsing"))) {
    const std::string name = file.path().filename().string(), text = sorvane::test::textOfFile(file.path());
    BodyReader reader(text);
    reader.skip();
    const bool read = reader.finish();
    if (name[0] == 'y') {
      EXPECT_EQ(read, name.find("duplicated_key") == std::string::npos) << name;
      ++accepted;
    } else if (name[0] == 'n') {
      EXPECT_FALSE(read) << name;
      ++refused;
    } else {
      ++either;
    }
  }
  EXPECT_EQ(accepted, 95);
  EXPECT_EQ(refused, 188);
  EXPECT_EQ(either, 35);
}

TEST(BodyReader, doubledKeysAndDepthAreFoundWhereverTheyStand) {
  const auto problemOf = [](const std::string& text) {
    BodyReader reader(text);
    reader.skip();
    reader.finish();
    return reader.problem();
  };
  std::string many = "{";
  for (int at = 0; at < 40; ++at) many += "\"key" + std::to_string(at) + "\":0,";
  EXPECT_EQ(problemOf(many + "\"last\":0}"), BodyProblem::none);
  EXPECT_EQ(problemOf(many + "\"key7\":0}"), BodyProblem::duplicateKey);
  EXPECT_EQ(problemOf(R"([{"\ud83d\ude00":1,"😀":2}])"), BodyProblem::duplicateKey);
  EXPECT_EQ(problemOf(R"({"a":{"b":1},"b":{"b":2}})"), BodyProblem::none);
  const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_EQ(problemOf(nested(kMostBodyDepth)), BodyProblem::none);
  EXPECT_EQ(problemOf(nested(kMostBodyDepth + 1)), BodyProblem::tooDeep);
}

}  // namespace
}  // namespace sorvane::proxy
