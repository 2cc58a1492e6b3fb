#include "agent/protocol.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "base/codec.h"
#include "support/corpus.h"

namespace sorvane::agent {
namespace {

using namespace std::chrono_literals;

std::string requestWith(const std::string& more) {
  return R"({"token":"t","op":"listEnvironments")" + more + "}";
}

TEST(Protocol, everyOperationHasItsWireNameAndNoOther) {
  std::set<std::string_view> words;
  for (std::size_t i = 0; i < kOpCount; ++i) {
    const auto op = static_cast<AgentOp>(i);
    words.insert(word(op));
    EXPECT_EQ(agentOpOf(word(op)), op);
  }
  EXPECT_EQ(words.size(), kOpCount);
  EXPECT_EQ(word(AgentOp::proxyRunEnded), "proxyRunEnded");
  for (const char* wrong : {"", "ListEnvironments", "listenvironments", "list_environments", "unlock"}) {
    EXPECT_EQ(agentOpOf(wrong), std::nullopt) << wrong;
  }
}

TEST(Protocol, aRequestComesBackWithEveryField) {
  AgentRequest request;
  request.token = base::SecretText("T");
  request.op = AgentOp::runEnv;
  request.arg = "a \"quoted\"\n";
  request.value = base::SecretText("made-up");
  request.requestor = "agent";
  request.environment = "Env ’1’";
  request.directory = "/tmp";
  request.taskSession = "S";
  request.durationSeconds = -5;
  request.payload = {{"command", "[\"true\"]"}, {"", ""}};
  const base::SecretText text = encodeRequest(request);
  EXPECT_EQ(text.view().substr(0, 26), R"({"token":"T","op":"runEnv")");
  const auto back = decodeRequest(text.view());
  ASSERT_TRUE(back);
  EXPECT_EQ(encodeRequest(*back).view(), text.view());
  EXPECT_EQ(back->payload, request.payload);
  EXPECT_EQ(back->durationSeconds, -5);
}

TEST(Protocol, onlyARequestOfTheRightShapeDecodes) {
  EXPECT_TRUE(decodeRequest(requestWith("")));
  EXPECT_TRUE(decodeRequest(" \r\n" + requestWith(R"(,"arg":null,"unknown":{"x":[1]})") + "\n"));
  EXPECT_TRUE(decodeRequest(requestWith(R"(,"durationSeconds":-9223372036854775808)")));
  for (const char* wrong :
       {R"(,"arg":1)", R"(,"arg":["a"])", R"(,"arg":{"a":1})", R"(,"value":true)", R"(,"payload":[])",
        R"(,"payload":{"a":1})", R"(,"payload":{"a":null})", R"(,"payload":{"a":"1","a":"2"})",
        R"(,"durationSeconds":"60")", R"(,"durationSeconds":60.0)", R"(,"durationSeconds":9223372036854775808)",
        R"(,"durationSeconds":1e3)", R"(,"arg":"a\u0000b")", R"(,"value":"\u0000")", R"(,"payload":{"a\u0000":"b"})",
        R"(,"op":"getSecret")", R"(,"token":"u")", R"(,"arg":"\ud800")",
        R"(,"arg":"a")"
        "\xff"}) {
    EXPECT_FALSE(decodeRequest(requestWith(wrong))) << wrong;
  }
  for (const char* wrong :
       {"", "null", "[]", R"({"op":"runEnv"})", R"({"token":"t"})", R"({"token":null,"op":"runEnv"})",
        R"({"token":"t","op":"nothing"})", R"({"token":"t","op":null})"}) {
    EXPECT_FALSE(decodeRequest(wrong)) << wrong;
  }
  EXPECT_FALSE(decodeRequest(requestWith(",\"deep\":" + std::string(32, '[') + std::string(32, ']'))));
}

TEST(Protocol, hostileFramesAreRefused) {
  // Frames that are well formed here; what they carry is judged by the operation they reach.
  const std::set<std::string> wellFormed{"ok-ws", "unknown-field", "neg-zero"};
  const std::set<std::string> judgedLater{"name-slash", "name-64k", "name-ansi", "reason-ansi", "tok-long"};
  int cases = 0;
  std::istringstream lines(test::textOfFile(test::corpus("agent_json/frames.jsonl")));
  for (std::string line; std::getline(lines, line); ++cases) {
    const auto frame = nlohmann::json::parse(line);
    const std::string id = frame["id"];
    const base::Bytes bytes = *base::parseBase64(frame["bytes_b64"].get<std::string>());
    std::string text(base::textOf(bytes));
    if (const auto at = text.find("\"ping\""); at != std::string::npos) text.replace(at, 6, "\"listEnvironments\"");
    if (const auto at = text.find('{'); at != std::string::npos && !id.starts_with("tok-") && id != "dup-token") {
      text.insert(at + 1, text.substr(at + 1).starts_with("}") ? R"("token":"t")" : R"("token":"t",)");
    }
    if (judgedLater.contains(id)) continue;
    EXPECT_EQ(decodeRequest(text).has_value(), wellFormed.contains(id)) << id << ": " << text.substr(0, 200);
  }
  EXPECT_EQ(cases, 41);
}

TEST(Protocol, aResponseLeavesOutWhatIsAbsentAndCountsDatesFrom2001) {
  AgentResponse response;
  EXPECT_EQ(encodeResponse(response).view(), R"({"ok":false})");
  response.ok = true;
  response.names = {"a"};
  response.lines.emplace().emplace_back("A=1");
  response.value = base::SecretText(std::string_view("out\0put", 7));
  TaskSessionInfo session{"I", "C", "E", base::Date(978307200s), base::Date(978307260s), {}};
  session.proxy = ProxySessionSummary{"qzt_local_x", {"openai"}, 1, 2, 3, base::Date(978307201s)};
  response.sessions = {session};
  response.usage = UsageStatus{50, {}, "1.00", {}, {}, {}, {}};
  response.clipboard = ClipboardPeek{true, "N", {}, "ab…", {}, {}};
  const base::SecretText text = encodeResponse(response);
  EXPECT_EQ(text.view(),
            R"({"ok":true,"names":["a"],"lines":["A=1"],"value":"out\u0000put","sessions":[{"id":"I","client":"C",)"
            R"("environment":"E","startedAt":0,"expiresAt":60,"proxy":{"display":"qzt_local_x","providers":["openai"],)"
            R"("spentCents":1,"budgetCents":2,"calls":3,"expiresAt":1}}],"usage":{"percent":50,"used":"1.00"},)"
            R"("clipboard":{"detected":true,"suggestedName":"N","masked":"ab…"}})");
  const auto back = decodeResponse(text.view());
  ASSERT_TRUE(back);
  EXPECT_EQ(encodeResponse(*back).view(), text.view());
}

TEST(Protocol, theEndpointFileKeepsItsOrder) {
  AgentInfo info{"/s/agent.sock", base::SecretText("T"),
                 std::vector<std::string>(kCapabilities.begin(), kCapabilities.end())};
  EXPECT_EQ(encodeInfo(info).view(),
            R"({"socketPath":"/s/agent.sock","token":"T","capabilities":["task_sessions_v1","vault_controller_v1",)"
            R"("deployment_policy_v1","run_env_v1","offboard_v1","clipboard_capture_v1"]})");
  EXPECT_EQ(encodeInfo(*decodeInfo(encodeInfo(info).view())).view(), encodeInfo(info).view());
  EXPECT_FALSE(decodeInfo(R"({"socketPath":"/s"})"));
}

}  // namespace
}  // namespace sorvane::agent
