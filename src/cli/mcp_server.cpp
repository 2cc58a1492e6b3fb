#include "cli/mcp_server.h"

#include <algorithm>
#include <array>

#include "base/unicode.h"

namespace sorvane::cli::mcp {
namespace {

constexpr std::array<std::string_view, 2> kHandshakeVersions{"2025-11-25", "2025-06-18"};  // newest first
constexpr std::string_view kStatelessVersion = "2026-07-28";
constexpr char kVersionKey[] = "io.modelcontextprotocol/protocolVersion";
constexpr char kCapabilitiesKey[] = "io.modelcontextprotocol/clientCapabilities";
constexpr char kClientKey[] = "io.modelcontextprotocol/clientInfo";
constexpr char kServerKey[] = "io.modelcontextprotocol/serverInfo";
constexpr std::size_t kMaxRequestorBytes = 200;

constexpr std::string_view kInstructions =
    "sorvane keeps the user's credentials. You see names, never values. list_environments shows what you may use; "
    "run_with_env runs a command with an environment's variables set and masks their values in the output. The owner "
    "is "
    "asked before anything is shared; begin_task_session asks once for a longer task. When a call returns a pendingId, "
    "call check_pending. Never ask the user to paste a credential into the conversation.";

const base::Json* member(const base::Json& object, const char* name) {
  if (!object.is_object()) return nullptr;
  const auto found = object.find(name);
  return found == object.end() ? nullptr : &*found;
}

const base::Json* metaOf(const base::Json& params, const char* name) {
  const base::Json* const meta = member(params, "_meta");
  return meta == nullptr ? nullptr : member(*meta, name);
}

std::string textOf(const base::Json& object, const char* name) {
  const base::Json* const found = member(object, name);
  return found != nullptr && found->is_string() ? found->get<std::string>() : "";
}

std::string jsonText(const base::Json& json) {
  return json.dump(-1, ' ', false, base::Json::error_handler_t::replace);
}

}  // namespace

McpServer::McpServer(Settings settings, Exchange exchange, Write write)
    : settings_(std::move(settings)),
      exchange_(std::move(exchange)),
      write_(std::move(write)),
      requestor_("a model-context-protocol client") {}

void McpServer::handle(const LineDecoder::Line& line) {
  if (line.tooLong) return refuse(nullptr, kInvalidRequest, "The line is longer than 1 MiB, so it was not read.");
  const std::string_view text = base::trimmed(line.text.view());
  if (text.empty()) return;
  Frame frame = decodeFrame(text);
  switch (frame.kind) {
    case Frame::Kind::refused:
      return refuse(frame.id, frame.errorCode, frame.problem);
    case Frame::Kind::response:
      break;
    case Frame::Kind::notification:
      if (frame.method == "notifications/cancelled") cancel(frame.params);
      break;
    case Frame::Kind::request:
      answerRequest(frame);
      break;
  }
  wipeTexts(frame.params);
}

void McpServer::answerRequest(Frame& frame) {
  Era era = Era::handshake;
  if (const base::Json* const version = metaOf(frame.params, kVersionKey)) {
    if (!version->is_string()) return refuse(frame.id, kInvalidParams, std::string(kVersionKey) + " is not a text.");
    if (*version != kStatelessVersion) {
      base::JsonWriter data;
      data.beginObject().strings("supported", {std::string(kStatelessVersion)});
      data.field("requested", version->get_ref<const std::string&>()).endObject();
      return refuse(frame.id, kUnsupportedVersion, "This protocol version is not served.", data.view());
    }
    const base::Json* const capabilities = metaOf(frame.params, kCapabilitiesKey);
    if (capabilities == nullptr || !capabilities->is_object()) {
      return refuse(frame.id, kInvalidParams, std::string(kCapabilitiesKey) + " is missing.");
    }
    if (const base::Json* const client = metaOf(frame.params, kClientKey)) noteClient(*client);
    era = Era::stateless;
  }
  const std::string& method = frame.method;
  if (method == "tools/call") return callTool(frame, era);
  if (method == "tools/list") return listTools(frame, era);
  if (method == "initialize" && era == Era::handshake) return initialize(frame);
  if (method == "ping") return send(endResult(beginResult(frame.id), era));
  if (method == "server/discover" && era == Era::stateless) {
    base::JsonWriter out = beginResult(frame.id);
    out.strings("supportedVersions", {std::string(kStatelessVersion)});
    out.key("capabilities").beginObject().key("tools").beginObject().endObject().endObject();
    out.field("instructions", kInstructions).key("ttlMs").integer(0).field("cacheScope", "private");
    return send(endResult(std::move(out), era));
  }
  refuse(frame.id, kMethodNotFound, "This method is not served.");
}

void McpServer::initialize(const Frame& frame) {
  const std::string wanted = textOf(frame.params, "protocolVersion");
  if (wanted.empty()) return refuse(frame.id, kInvalidParams, "initialize needs protocolVersion.");
  if (const base::Json* const client = member(frame.params, "clientInfo")) noteClient(*client);
  const auto known = std::find(kHandshakeVersions.begin(), kHandshakeVersions.end(), wanted);
  base::JsonWriter out = beginResult(frame.id);
  out.field("protocolVersion", known == kHandshakeVersions.end() ? kHandshakeVersions.front() : *known);
  out.key("capabilities").beginObject().key("tools").beginObject().endObject().endObject();
  writeIdentity(out.key("serverInfo"));
  out.field("instructions", kInstructions);
  send(endResult(std::move(out), Era::handshake));
}

void McpServer::noteClient(const base::Json& info) {
  const std::string name = textOf(info, "name");
  if (base::trimmed(name).empty()) return;
  const std::string version = textOf(info, "version");
  const std::string shown = base::escapedForDisplay(version.empty() ? name : name + " " + version);
  const base::Lock lock(mutex_);
  requestor_ = base::prefixOfWholeCharacters(shown, kMaxRequestorBytes);
}

void McpServer::listTools(const Frame& frame, Era era) {
  if (frame.params.contains("cursor")) return refuse(frame.id, kInvalidParams, "The list has one page and no cursor.");
  base::JsonWriter out = beginResult(frame.id);
  out.key("tools").beginArray();
  for (const Tool& tool : allTools()) {
    if (isListed(tool, settings_.reveal)) describeTool(out, tool);
  }
  out.endArray();
  if (era == Era::stateless) out.key("ttlMs").integer(0).field("cacheScope", "private");
  send(endResult(std::move(out), era));
}

McpServer::Waiter McpServer::waiterOf(const Frame& frame, Era era) const {
  const base::Json* const token = metaOf(frame.params, "progressToken");
  const bool wanted = token != nullptr && (token->is_string() || token->is_number_integer());
  const base::Instant now = std::chrono::steady_clock::now();
  return {
      frame.id, era, wanted ? *token : base::Json(), now, now + settings_.progressEvery, now + settings_.pendingAfter};
}

void McpServer::callTool(Frame& frame, Era era) {
  const Tool* const tool = toolNamed(textOf(frame.params, "name"), settings_.reveal);
  if (tool == nullptr) return refuse(frame.id, kInvalidParams, "There is no tool of this name. tools/list shows them.");
  const base::Json none = base::Json::object();
  const base::Json* given = member(frame.params, "arguments");
  if (given == nullptr) given = &none;
  if (!given->is_object()) return refuse(frame.id, kInvalidParams, "The arguments are not a JSON object.");
  if (idInUse(frame.id)) return refuse(frame.id, kInvalidRequest, "A request with this id is still being answered.");
  const Waiter waiter = waiterOf(frame, era);
  try {
    if (!tool->op) return checkPending(*tool, *given, waiter);
    startCall(*tool, requestOf(*tool, *given), waiter);
  } catch (const ArgumentError& error) {
    send(toolResult(waiter, tool->shape, agent::AgentResponse::refused(error.sentence(), "invalid_arguments")));
  }
}

void McpServer::checkPending(const Tool& tool, const base::Json& arguments, Waiter waiter) {
  checkArguments(tool, arguments);
  const std::string id = textOf(arguments, "pendingId");
  {
    const base::Lock lock(mutex_);
    const auto call = std::find_if(calls_.begin(), calls_.end(), [&id](const Call& candidate) {
      return candidate.pendingId == id && !candidate.unwanted && !candidate.waiter;
    });
    if (call == calls_.end()) {
      enqueue(
          toolResult(waiter, tool.shape,
                     agent::AgentResponse::refused(
                         "No call waits under this pendingId: its answer was given already, it was cancelled, or it "
                         "was kept for too long. Nothing was asked. Make the call itself again.",
                         "pending_not_found")));
    } else if (call->answer) {
      enqueue(toolResult(waiter, call->shape, *call->answer));
      calls_.erase(call);
    } else {
      wakeClock(waiter);
      call->waiter = std::move(waiter);
    }
  }
  flush();
}

void McpServer::cancel(const base::Json& params) {
  const base::Json* const id = member(params, "requestId");
  if (id == nullptr) return;
  std::stop_source withdrawal(std::nostopstate);
  {
    const base::Lock lock(mutex_);
    const auto call = std::find_if(calls_.begin(), calls_.end(), [id](const Call& candidate) {
      return candidate.waiter && candidate.waiter->requestId == *id;
    });
    if (call == calls_.end()) return;
    call->waiter.reset();
    call->unwanted = true;
    withdrawal = call->withdrawal;
  }
  withdrawal.request_stop();
}

void McpServer::writeIdentity(base::JsonWriter& out) const {
  out.beginObject().field("name", "sorvane").field("title", "sorvane");
  out.field("version", std::string_view(settings_.version)).endObject();
}

base::JsonWriter McpServer::beginResult(const base::Json& id) const {
  base::JsonWriter out;
  out.beginObject().field("jsonrpc", "2.0").key("id").raw(jsonText(id));
  out.key("result").beginObject();
  return out;
}

base::SecretText McpServer::endResult(base::JsonWriter out, Era era) const {
  if (era == Era::stateless) {
    out.field("resultType", "complete");
    writeIdentity(out.key("_meta").beginObject().key(kServerKey));
    out.endObject();
  }
  out.endObject().endObject();
  return out.take();
}

base::SecretText McpServer::toolResult(const Waiter& waiter, Shape shape, const agent::AgentResponse& answer) const {
  base::JsonWriter out = beginResult(waiter.requestId);
  writeToolResult(out, shape, answer);
  return endResult(std::move(out), waiter.era);
}

void McpServer::refuse(const base::Json& id, int code, std::string_view problem, std::string_view data) {
  base::JsonWriter out;
  out.beginObject().field("jsonrpc", "2.0").key("id").raw(jsonText(id));
  out.key("error").beginObject().key("code").integer(code).field("message", problem);
  if (!data.empty()) out.key("data").raw(data);
  out.endObject().endObject();
  send(out.take());
}

void McpServer::enqueue(base::SecretText line) {
  line.push_back('\n');
  outgoing_.push_back(std::move(line));
}

void McpServer::send(base::SecretText line) {
  {
    const base::Lock lock(mutex_);
    enqueue(std::move(line));
  }
  flush();
}

void McpServer::flush() {
  const base::Lock writing(writing_);
  for (;;) {
    base::SecretText line;
    {
      const base::Lock lock(mutex_);
      if (outgoing_.empty()) return;
      line = std::move(outgoing_.front());
      outgoing_.pop_front();
    }
    write_(line.view());
  }
}

}  // namespace sorvane::cli::mcp
