#include "cli/mcp_fixture.h"

namespace sorvane::test {
namespace {

using cli::mcp::LineDecoder;
using cli::mcp::McpServer;
using namespace std::chrono_literals;

const json kStateless{{"io.modelcontextprotocol/protocolVersion", "2026-07-28"},
                      {"io.modelcontextprotocol/clientCapabilities", json::object()}};

TEST(McpLines, areTheSameHoweverTheStreamIsCut) {
  const std::string stream = "ab\n\nabcdefgh\nabcdefghi\n" + std::string(100, 'x') + "\nlast\ncut off";
  const std::vector<std::string> expected{"ab", "", "abcdefgh", "too long", "too long", "last"};
  for (std::size_t piece = 1; piece <= stream.size(); ++piece) {
    LineDecoder decoder(8);
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
      std::string_view bytes = std::string_view(stream).substr(at, piece);
      while (!bytes.empty()) {
        const auto line = decoder.take(bytes);
        if (line) lines.emplace_back(line->tooLong ? "too long" : line->text.view());
      }
    }
    EXPECT_EQ(lines, expected) << "in pieces of " << piece;
  }
}

TEST_F(McpHouse, refusesWhatIsNoMessageAndAnswersTheNext) {
  start();
  const struct {
    std::string line;
    int code;
    json id;
  } cases[] = {
      {"{", -32700, nullptr},
      {"\xff", -32700, nullptr},
      {R"({"jsonrpc":"2.0","id":1,"id":2,"method":"ping"})", -32700, nullptr},
      {std::string(5000, '['), -32700, nullptr},
      {R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])", -32600, nullptr},
      {"7", -32600, nullptr},
      {R"({"id":1,"method":"ping"})", -32600, 1},
      {R"({"jsonrpc":"2.0","id":1})", -32600, 1},
      {R"({"jsonrpc":"2.0","id":"a","method":7})", -32600, "a"},
      {R"({"jsonrpc":"2.0","id":null,"method":"ping"})", -32600, nullptr},
      {R"({"jsonrpc":"2.0","id":1.5,"method":"ping"})", -32600, nullptr},
      {R"({"jsonrpc":"2.0","id":1,"method":"ping","params":[]})", -32600, 1},
      {R"({"jsonrpc":"2.0","id":1,"method":"prompts/list"})", -32601, 1},
      {R"({"jsonrpc":"2.0","id":1,"method":"server/discover"})", -32601, 1},
      {R"({"jsonrpc":"2.0","id":1,"method":"initialize"})", -32602, 1},
      {R"({"jsonrpc":"2.0","id":1,"method":"tools/list","params":{"cursor":"x"}})", -32602, 1},
      {R"({"jsonrpc":"2.0","id":1,"method":"tools/call"})", -32602, 1},
      {R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"rm"}})", -32602, 1},
      {R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"get_secret"}})", -32602, 1},
      {R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"list_secrets","arguments":[]}})", -32602, 1}};
  for (const auto& c : cases) {
    sayLine(c.line);
    const json reply = heard();
    EXPECT_EQ(reply["error"]["code"], c.code) << c.line.substr(0, 100);
    EXPECT_EQ(reply["id"], c.id) << c.line.substr(0, 100);
  }
  LineDecoder::Line huge;
  huge.tooLong = true;
  server_->handle(huge);
  EXPECT_EQ(heard()["error"]["code"], -32600);
  // None of these is answered.
  for (const char* const line : {"", " \r", R"({"jsonrpc":"2.0","id":9,"result":{}})",
                                 R"({"jsonrpc":"2.0","method":"notifications/initialized"})",
                                 R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":77}})"}) {
    sayLine(line);
  }
  EXPECT_EQ(ask("ping"), (json{{"jsonrpc", "2.0"}, {"id", "q"}, {"result", json::object()}}));
}

TEST_F(McpHouse, speaksBothEras) {
  start();
  const std::pair<const char*, const char*> versions[] = {{"2025-06-18", "2025-06-18"},
                                                          {"2025-11-25", "2025-11-25"},
                                                          {"2024-11-05", "2025-11-25"},
                                                          {"2099-01-01", "2025-11-25"}};
  for (const auto& [wanted, given] : versions) {
    const json result = ask("initialize", {{"protocolVersion", wanted}, {"capabilities", json::object()}})["result"];
    EXPECT_EQ(result["protocolVersion"], given);
    EXPECT_EQ(result["capabilities"], (json{{"tools", json::object()}}));
    EXPECT_EQ(result["serverInfo"]["version"], "1.2.3");
  }
  const json listed = ask("tools/list")["result"];
  EXPECT_FALSE(listed.contains("resultType")) << "the handshake era does not know it";

  const json found = ask("server/discover", {{"_meta", kStateless}})["result"];
  EXPECT_EQ(found["supportedVersions"], json{"2026-07-28"});
  const json list = ask("tools/list", {{"_meta", kStateless}})["result"];
  for (const json& result : {found, list}) {
    EXPECT_EQ(result["resultType"], "complete");
    EXPECT_EQ(result["cacheScope"], "private");
    EXPECT_EQ(result["ttlMs"], 0);
    EXPECT_EQ(result["_meta"]["io.modelcontextprotocol/serverInfo"]["name"], "sorvane");
  }
  EXPECT_EQ(list["tools"], listed["tools"]);
  EXPECT_EQ(ask("initialize", {{"protocolVersion", "2025-11-25"}, {"_meta", kStateless}})["error"]["code"], -32601);

  json meta = kStateless;
  meta["io.modelcontextprotocol/protocolVersion"] = "2026-12-31";
  const json unsupported = ask("tools/list", {{"_meta", meta}})["error"];
  EXPECT_EQ(unsupported["code"], -32022);
  EXPECT_EQ(unsupported["data"], (json{{"supported", {"2026-07-28"}}, {"requested", "2026-12-31"}}));
  meta["io.modelcontextprotocol/protocolVersion"] = 7;
  EXPECT_EQ(ask("tools/list", {{"_meta", meta}})["error"]["code"], -32602);
  meta = {{"io.modelcontextprotocol/protocolVersion", "2026-07-28"}};
  EXPECT_EQ(ask("tools/list", {{"_meta", meta}})["error"]["code"], -32602);

  call(1, "list_environments", json::object(), kStateless);
  sorvaned_.next().answer({{"ok", true}, {"names", json::array()}});
  EXPECT_EQ(heard()["result"]["resultType"], "complete");
}

TEST_F(McpHouse, everyToolBecomesItsRequest) {
  McpServer::Settings settings;
  settings.reveal = cli::mcp::Reveal::offered;
  start(std::move(settings));
  ask("initialize", {{"protocolVersion", "2025-11-25"}, {"clientInfo", {{"name", "Some\nagent"}, {"version", "4.5"}}}});
  const struct {
    const char* tool;
    json arguments;
    json request;
  } cases[] = {
      {"list_environments", json::object(), {{"op", "listEnvironments"}}},
      {"list_secrets", {{"environment", "Dev"}}, {{"op", "listSecrets"}, {"environment", "Dev"}}},
      {"run_with_env",
       {{"command", {"sh", "-c", "exit 1"}},
        {"environment", "Dev"},
        {"directory", "/w"},
        {"taskSession", "T"},
        {"timeoutSeconds", 5},
        {"deploymentTarget", "staging"},
        {"proxy_budget_cents", 250},
        {"proxy_models", {"a-model"}}},
       {{"op", "runEnv"},
        {"environment", "Dev"},
        {"directory", "/w"},
        {"taskSession", "T"},
        {"payload",
         {{"command", R"(["sh","-c","exit 1"])"},
          {"timeoutSeconds", "5"},
          {"deploymentTarget", "staging"},
          {"proxy_budget_cents", "250"},
          {"proxy_models", R"(["a-model"])"},
          {"client", "local_proxy_v1"}}}}},
      {"begin_task_session",
       {{"environment", "Dev"}, {"durationSeconds", 3600}, {"deploymentTarget", "production"}},
       {{"op", "beginTaskSession"},
        {"environment", "Dev"},
        {"durationSeconds", 3600},
        {"payload", {{"deploymentTarget", "production"}, {"client", "local_proxy_v1"}}}}},
      {"proxy_usage", json::object(), {{"op", "proxyUsage"}}},
      {"list_task_sessions", json::object(), {{"op", "listTaskSessions"}}},
      {"end_task_session", {{"taskSession", "T"}}, {{"op", "endTaskSession"}, {"taskSession", "T"}}},
      {"create_environment", {{"name", "N"}}, {{"op", "createEnvironment"}, {"arg", "N"}}},
      {"delete_environment", {{"name", "N"}}, {{"op", "deleteEnvironment"}, {"arg", "N"}}},
      {"add_to_environment",
       {{"secret", "S"}, {"environment", "Dev"}},
       {{"op", "addToEnvironment"}, {"arg", "S"}, {"environment", "Dev"}}},
      {"import_project",
       {{"directory", "/w"}, {"dryRun", true}},
       {{"op", "importProject"}, {"directory", "/w"}, {"payload", {{"dryRun", "true"}}}}},
      {"import_project", {{"directory", "/w"}, {"dryRun", false}}, {{"op", "importProject"}, {"directory", "/w"}}},
      {"capture_secret",
       {{"name", "N"}, {"value", "made up"}},
       {{"op", "captureSecret"}, {"arg", "N"}, {"value", "made up"}}},
      {"peek_clipboard", json::object(), {{"op", "peekClipboard"}}},
      {"capture_clipboard",
       {{"name", "N"}, {"fingerprint", "f0"}},
       {{"op", "captureClipboard"}, {"arg", "N"}, {"payload", {{"fingerprint", "f0"}}}}},
      {"write_key_env_file",
       {{"taskSession", "T"}, {"path", "/p"}, {"allowGitWorktree", true}},
       {{"op", "keyEnvFile"}, {"taskSession", "T"}, {"arg", "/p"}, {"payload", {{"allowGitWorktree", "true"}}}}},
      {"get_secret",
       {{"name", "N"}, {"environment", "Dev"}},
       {{"op", "getSecret"}, {"arg", "N"}, {"environment", "Dev"}}}};
  std::set<std::string> called{"check_pending"}, listed;
  for (const auto& c : cases) {
    call(1, c.tool, c.arguments);
    Asked asked = sorvaned_.next();
    json expected = c.request;
    expected["token"] = "made-up-token";
    expected["requestor"] = "Some\\nagent 4.5";
    EXPECT_EQ(asked.request, expected);
    asked.answer({{"ok", true}});
    EXPECT_EQ(heard()["result"]["isError"], false) << c.tool;
    called.insert(c.tool);
  }
  const json tools = ask("tools/list")["result"]["tools"];
  for (const json& tool : tools) {
    listed.insert(tool["name"]);
    for (const json& name : tool["inputSchema"].value("required", json::array()))
      EXPECT_TRUE(tool["inputSchema"]["properties"].contains(name)) << tool;
  }
  EXPECT_EQ(called, listed);
  start();
  EXPECT_EQ(ask("tools/list")["result"]["tools"].size(), listed.size() - 1) << "get_secret is not offered to everyone";
}

TEST_F(McpHouse, argumentsThatDoNotFitAreToldToTheModelAndAskNobody) {
  start();
  const struct {
    const char* tool;
    json arguments;
    const char* sentence;
  } cases[] = {
      {"list_secrets", json::object(), "list_secrets needs 'environment'."},
      {"list_secrets", {{"environment", 7}}, "'environment' must be a text."},
      {"list_secrets", {{"environment", std::string("a\0b", 3)}}, "'environment' must be a text."},
      {"list_environments", {{"verbose", true}}, "list_environments has no argument of one of the names given."},
      {"run_with_env", {{"command", "ls"}}, "'command' must be a list of texts with at least one in it."},
      {"run_with_env", {{"command", json::array()}}, "'command' must be a list of texts with at least one in it."},
      {"run_with_env", {{"command", {"a", 1}}}, "'command' must be a list of texts with at least one in it."},
      {"run_with_env", {{"command", {"a"}}, {"timeoutSeconds", 1.5}}, "'timeoutSeconds' must be a whole number."},
      {"begin_task_session",
       {{"environment", "D"}, {"durationSeconds", UINT64_MAX}},
       "'durationSeconds' must be a whole number."},
      {"import_project", {{"directory", "/w"}, {"dryRun", "yes"}}, "'dryRun' must be true or false."},
      {"check_pending", json::object(), "check_pending needs 'pendingId'."},
      {"check_pending", {{"pendingId", "none"}}, "No call waits under this pendingId"}};
  for (const auto& c : cases) {
    call("x", c.tool, c.arguments);
    const json result = heard()["result"];
    EXPECT_EQ(result["isError"], true);
    EXPECT_TRUE(result["content"][0]["text"].get<std::string>().starts_with(c.sentence)) << result;
  }
}

TEST_F(McpHouse, answersBecomeResults) {
  start();
  const struct {
    const char* tool;
    json arguments;
    json response;
    const char* text;
    json structured;
  } cases[] = {
      {"list_environments",
       json::object(),
       {{"ok", true}, {"names", {"Dev", "Prod"}}},
       "Dev\nProd",
       {{"environments", {"Dev", "Prod"}}}},
      {"list_secrets",
       {{"environment", "D"}},
       {{"ok", true}, {"names", {"stripe"}}, {"publicNames", {"STRIPE_KEY"}}},
       "STRIPE_KEY holds stripe",
       {{"secrets", {{{"name", "stripe"}, {"variable", "STRIPE_KEY"}}}}}},
      {"run_with_env",
       {{"command", {"x"}}},
       {{"ok", true},
        {"value", "‹redacted›\n"},
        {"document", R"({"exitCode":3,"output":"o"})"},
        {"warnings", {"W"}},
        {"missing", {"A", "B"}}},
       "‹redacted›\nExit code: 3\nWarning: W\nNot in the vault: A, B",
       {{"exitCode", 3}, {"output", "o"}}},
      {"run_with_env",
       {{"command", {"x"}}},
       {{"ok", false}, {"error", "The command was stopped."}, {"value", "so far"}, {"document", "{}"}},
       "The command was stopped.\nso far",
       {{"errorCode", "refused"}}},
      {"list_task_sessions",
       json::object(),
       {{"ok", true},
        {"sessions", {{{"id", "T1"}, {"client", "C"}, {"environment", "Dev"}, {"startedAt", 0}, {"expiresAt", 60}}}}},
       "T1: environment Dev, until 2001-01-01T00:01:00Z",
       {{"sessions",
         {{{"id", "T1"},
           {"client", "C"},
           {"environment", "Dev"},
           {"startedAt", "2001-01-01T00:00:00Z"},
           {"expiresAt", "2001-01-01T00:01:00Z"}}}}}},
      {"import_project",
       {{"directory", "/w"}},
       {{"ok", true}, {"value", "imported 2 keys"}, {"document", R"({"keys":[]})"}},
       "imported 2 keys",
       {{"keys", json::array()}}},
      {"import_project", {{"directory", "/w"}}, {{"ok", true}, {"value", "v"}, {"document", "not json"}}, "v", nullptr},
      {"create_environment",
       {{"name", "N"}},
       {{"ok", true}, {"value", "created environment 'N'"}, {"error", "A notice."}},
       "created environment 'N'\nA notice.",
       nullptr},
      {"create_environment",
       {{"name", "N"}},
       {{"ok", false}, {"error", "approval denied"}},
       "approval denied",
       {{"errorCode", "approval_denied"}}},
      {"create_environment",
       {{"name", "N"}},
       {{"ok", false}, {"error", "Not here."}, {"errorCode", "unauthorized"}},
       "Not here.",
       {{"errorCode", "unauthorized"}}},
      {"create_environment",
       {{"name", "N"}},
       "",
       "sorvaned closed the connection without an answer, so nothing was shared. Try again.",
       {{"errorCode", "bad_answer"}}},
      {"create_environment",
       {{"name", "N"}},
       "{\"ok\":",
       "sorvaned sent an answer that this program does not understand.",
       {{"errorCode", "bad_answer"}}}};
  for (const auto& c : cases) {
    call(1, c.tool, c.arguments);
    sorvaned_.next().answer(c.response);
    const json result = heard()["result"];
    EXPECT_EQ(result["content"], (json{{{"type", "text"}, {"text", c.text}}}));
    EXPECT_EQ(result.value("structuredContent", json()), c.structured) << c.tool;
    EXPECT_EQ(result["isError"], !c.response.is_object() || !c.response["ok"]);
  }
  call(1, "peek_clipboard");
  const json peek{{"detected", true}, {"kind", "Stripe key"}, {"masked", "sk_…9f"}, {"fingerprint", "f0"}};
  sorvaned_.next().answer({{"ok", true}, {"clipboard", peek}});
  const json result = heard()["result"];
  EXPECT_EQ(result["structuredContent"], peek);
  EXPECT_NE(result["content"][0]["text"].get<std::string>().find("a credential: Stripe key, sk_…9f.\nFingerprint: f0"),
            std::string::npos);
}

TEST_F(McpHouse, aCancelledCallIsWithdrawnAndNeverAnswered) {
  start();
  call(5, "create_environment", {{"name", "N"}});
  const Asked asked = sorvaned_.next();
  call(5, "list_environments");
  EXPECT_EQ(heard()["error"]["code"], -32600) << "the id is taken";
  // Another id, and another kind of the same, name no call.
  for (const json& id : {json(6), json("5")}) {
    say({{"jsonrpc", "2.0"}, {"method", "notifications/cancelled"}, {"params", {{"requestId", id}}}});
  }
  pollfd still{asked.socket.get(), 0, 0};
  EXPECT_EQ(::poll(&still, 1, 0), 0);
  say({{"jsonrpc", "2.0"}, {"method", "notifications/cancelled"}, {"params", {{"requestId", 5}, {"reason", "no"}}}});
  EXPECT_TRUE(asked.isWithdrawn());
  EXPECT_EQ(ask("ping")["id"], "q");
  // The id may be used again, and the end of the server withdraws what is left.
  call(5, "create_environment", {{"name", "N"}});
  const Asked again = sorvaned_.next();
  server_.reset();
  EXPECT_TRUE(again.isWithdrawn());
  EXPECT_TRUE(lines_.empty());
}

TEST_F(McpHouse, callsThatWaitInAFullQueueAreWithdrawnToo) {
  McpServer::Settings settings;
  settings.maxCalls = 100;
  start(std::move(settings));
  // Nobody accepts, and the stand-in's queue holds 32.
  for (int i = 0; i < 40; ++i) call(i, "list_environments");
  server_.reset();
  EXPECT_TRUE(lines_.empty());
}

TEST_F(McpHouse, tellsProgressUntilTheAnswerToWhoAskedForIt) {
  McpServer::Settings settings;
  settings.progressEvery = 2ms;
  start(std::move(settings));
  call(1, "list_environments");
  Asked silent = sorvaned_.next();
  call(2, "list_environments", json::object(), {{"progressToken", "t"}});
  Asked asked = sorvaned_.next();
  std::int64_t last = -1;
  for (int i = 0; i < 3; ++i) {
    const json told = heard();
    EXPECT_EQ(told["method"], "notifications/progress");
    EXPECT_EQ(told["params"]["progressToken"], "t");
    EXPECT_GT(told["params"]["progress"], last);
    last = told["params"]["progress"];
  }
  asked.answer({{"ok", true}});
  while (!heard().contains("result")) {
  }
  silent.answer({{"ok", true}});
  EXPECT_EQ(heard()["id"], 1) << "nothing is told after the answer, and nothing to who gave no token";
}

TEST_F(McpHouse, aLongCallIsPendingAndItsAnswerIsGivenOnce) {
  McpServer::Settings settings;
  settings.pendingAfter = 50ms;
  start(std::move(settings));
  call(1, "create_environment", {{"name", "N"}});
  Asked asked = sorvaned_.next();
  const json pending = heard();
  EXPECT_EQ(pending["id"], 1);
  EXPECT_EQ(pending["result"]["isError"], false);
  const json id{{"pendingId", pending["result"]["structuredContent"]["pendingId"]}};
  call(2, "check_pending", id);
  EXPECT_EQ(heard()["result"]["structuredContent"], pending["result"]["structuredContent"]);
  call(3, "check_pending", id);
  asked.answer({{"ok", true}, {"value", "created environment 'N'"}});
  json answer = heard();
  for (int i = 4; answer["result"].contains("structuredContent"); ++i) {
    call(i, "check_pending", id);
    answer = heard();
  }
  EXPECT_EQ(answer["result"]["content"][0]["text"], "created environment 'N'");
  call(90, "check_pending", id);
  EXPECT_EQ(heard()["result"]["structuredContent"]["errorCode"], "pending_not_found");

  call(91, "create_environment", {{"name", "N"}});
  asked = sorvaned_.next();
  const json second{{"pendingId", heard()["result"]["structuredContent"]["pendingId"]}};
  call(92, "check_pending", second);
  say({{"jsonrpc", "2.0"}, {"method", "notifications/cancelled"}, {"params", {{"requestId", 92}}}});
  EXPECT_TRUE(asked.isWithdrawn()) << "who gives up waiting gives up the call";
}

TEST_F(McpHouse, callsAreBoundedAndAnAnswerNobodyCameForGivesWay) {
  McpServer::Settings settings;
  settings.pendingAfter = 1ms;
  settings.maxCalls = 2;
  start(std::move(settings));
  call(1, "list_environments");
  Asked first = sorvaned_.next();
  call(2, "list_environments");
  const Asked second = sorvaned_.next();
  std::set<int> pending;
  while (pending.size() < 2) pending.insert(heard()["id"].get<int>());
  call(3, "list_environments");
  EXPECT_EQ(heard()["result"]["structuredContent"]["errorCode"], "too_many_calls");
  first.answer({{"ok", true}});
  // When the first answer has come in, it makes room; until then the call is refused.
  for (int i = 4;; ++i) {
    call(i, "list_environments");
    const json reply = heard();
    if (!reply["result"]["structuredContent"].contains("errorCode")) break;
    EXPECT_EQ(reply["result"]["structuredContent"]["errorCode"], "too_many_calls");
  }
}

}  // namespace
}  // namespace sorvane::test
