#include <nlohmann/json.hpp>

#include "agent/protocol.h"
#include "agent/protocol_fields.h"
#include "base/json.h"

namespace sorvane::agent {
namespace {

using base::Json;

ProxySessionSummary summaryOf(const Json& json) {
  const Fields fields(json);
  ProxySessionSummary summary;
  summary.display = plainText(fields.need("display"));
  summary.providers = fields.list("providers").value_or(std::vector<std::string>{});
  summary.spentCents = fields.needInteger("spentCents");
  summary.budgetCents = fields.needInteger("budgetCents");
  summary.calls = fields.needInteger("calls");
  summary.expiresAt = fields.date("expiresAt");
  return summary;
}

TaskSessionInfo sessionOf(const Json& json) {
  const Fields fields(json);
  TaskSessionInfo info;
  info.id = plainText(fields.need("id"));
  info.client = plainText(fields.need("client"));
  info.environment = plainText(fields.need("environment"));
  info.startedAt = fields.date("startedAt");
  info.expiresAt = fields.date("expiresAt");
  if (const Json* proxy = fields.find("proxy")) info.proxy = summaryOf(*proxy);
  return info;
}

UsageStatus usageOf(const Json& json) {
  const Fields fields(json);
  UsageStatus usage;
  usage.percent = fields.needInteger("percent");
  usage.notice = fields.text("notice");
  usage.used = fields.text("used");
  usage.allowance = fields.text("allowance");
  usage.planName = fields.text("planName");
  usage.windowEnd = fields.text("windowEnd");
  usage.plan = fields.text("plan");
  return usage;
}

ClipboardPeek peekOf(const Json& json) {
  const Fields fields(json);
  ClipboardPeek peek;
  peek.detected = fields.boolean("detected");
  peek.suggestedName = fields.text("suggestedName");
  peek.kind = fields.text("kind");
  peek.masked = fields.text("masked");
  peek.fingerprint = fields.text("fingerprint");
  peek.note = fields.text("note");
  return peek;
}

AgentRequest requestOf(const Json& json) {
  const Fields fields(json);
  AgentRequest request;
  request.token = base::SecretText(plainText(fields.need("token")));
  const auto op = agentOpOf(plainText(fields.need("op")));
  if (!op) throw WrongShape{};
  request.op = *op;
  request.arg = fields.text("arg");
  request.value = fields.secret("value");
  if (request.value && request.value->view().find('\0') != std::string_view::npos) throw WrongShape{};
  request.requestor = fields.text("requestor");
  request.environment = fields.text("environment");
  request.directory = fields.text("directory");
  request.taskSession = fields.text("taskSession");
  request.durationSeconds = fields.integer("durationSeconds");
  if (const Json* payload = fields.find("payload")) {
    if (!payload->is_object()) throw WrongShape{};
    request.hasPayload = true;
    for (const auto& [name, value] : payload->items()) {
      if (name.find('\0') != std::string::npos) throw WrongShape{};
      request.payload.emplace(name, plainText(value));
    }
  }
  return request;
}

AgentResponse responseOf(const Json& json) {
  const Fields fields(json);
  AgentResponse response;
  response.ok = fields.boolean("ok");
  response.error = fields.text("error");
  response.names = fields.list("names");
  if (const Json* lines = fields.find("lines")) {
    if (!lines->is_array()) throw WrongShape{};
    response.lines.emplace();
    for (const Json& line : *lines) response.lines->emplace_back(anyText(line));
  }
  response.warnings = fields.list("warnings");
  response.value = fields.secret("value");
  response.missing = fields.list("missing");
  response.directory = fields.text("directory");
  if (const Json* sessions = fields.find("sessions")) {
    if (!sessions->is_array()) throw WrongShape{};
    response.sessions.emplace();
    for (const Json& session : *sessions) response.sessions->push_back(sessionOf(session));
  }
  response.errorCode = fields.text("errorCode");
  response.document = fields.secret("document");
  response.publicNames = fields.list("publicNames");
  response.runControlAllowed = fields.list("runControlAllowed");
  response.proxyRun = fields.text("proxyRun");
  if (const Json* usage = fields.find("usage")) response.usage = usageOf(*usage);
  if (const Json* clipboard = fields.find("clipboard")) response.clipboard = peekOf(*clipboard);
  return response;
}

AgentInfo infoOf(const Json& json) {
  const Fields fields(json);
  AgentInfo info;
  info.socketPath = plainText(fields.need("socketPath"));
  info.token = base::SecretText(plainText(fields.need("token")));
  info.capabilities = fields.list("capabilities");
  return info;
}

}  // namespace

std::optional<AgentRequest> decodeRequest(std::string_view text) {
  return decodeMessage<AgentRequest>(text, requestOf);
}
std::optional<AgentResponse> decodeResponse(std::string_view text) {
  return decodeMessage<AgentResponse>(text, responseOf);
}
std::optional<AgentInfo> decodeInfo(std::string_view text) {
  return decodeMessage<AgentInfo>(text, infoOf);
}

}  // namespace sorvane::agent
