#include "agent/protocol.h"
#include "base/date.h"
#include "base/json_writer.h"

namespace sorvane::agent {
namespace {

using base::JsonWriter;

void text(JsonWriter& out, std::string_view name, const std::optional<base::SecretText>& value) {
  if (value) out.field(name, value->view());
}

void list(JsonWriter& out, std::string_view name, const std::optional<std::vector<std::string>>& values) {
  if (values) out.strings(name, *values);
}

/// Dates on the socket are seconds since 2001-01-01T00:00:00Z.
void date(JsonWriter& out, std::string_view name, base::Date value) {
  out.key(name).integer((value.time_since_epoch() - base::kReferenceDateOffset).count());
}

void encode(JsonWriter& out, const ProxySessionSummary& summary) {
  out.beginObject().field("display", summary.display).strings("providers", summary.providers);
  out.key("spentCents").integer(summary.spentCents).key("budgetCents").integer(summary.budgetCents);
  out.key("calls").integer(summary.calls);
  date(out, "expiresAt", summary.expiresAt);
  out.endObject();
}

void encode(JsonWriter& out, const TaskSessionInfo& info) {
  out.beginObject().field("id", info.id).field("client", info.client).field("environment", info.environment);
  date(out, "startedAt", info.startedAt);
  date(out, "expiresAt", info.expiresAt);
  if (info.proxy) encode(out.key("proxy"), *info.proxy);
  out.endObject();
}

void encode(JsonWriter& out, const UsageStatus& usage) {
  out.beginObject().key("percent").integer(usage.percent);
  out.field("notice", usage.notice).field("used", usage.used).field("allowance", usage.allowance);
  out.field("planName", usage.planName).field("windowEnd", usage.windowEnd).field("plan", usage.plan).endObject();
}

void encode(JsonWriter& out, const ClipboardPeek& peek) {
  out.beginObject().key("detected").boolean(peek.detected);
  out.field("suggestedName", peek.suggestedName).field("kind", peek.kind).field("masked", peek.masked);
  out.field("fingerprint", peek.fingerprint).field("note", peek.note).endObject();
}

}  // namespace

base::SecretText encodeRequest(const AgentRequest& request) {
  JsonWriter out;
  out.beginObject().field("token", request.token.view()).field("op", word(request.op)).field("arg", request.arg);
  text(out, "value", request.value);
  out.field("requestor", request.requestor).field("environment", request.environment);
  out.field("directory", request.directory).field("taskSession", request.taskSession);
  if (request.durationSeconds) out.key("durationSeconds").integer(*request.durationSeconds);
  if (request.hasPayload || !request.payload.empty()) {
    out.key("payload").beginObject();
    for (const auto& [name, value] : request.payload) out.field(name, std::string_view(value));
    out.endObject();
  }
  out.endObject();
  return out.take();
}

base::SecretText encodeResponse(const AgentResponse& response) {
  JsonWriter out;
  out.beginObject().key("ok").boolean(response.ok).field("error", response.error);
  list(out, "names", response.names);
  if (response.lines) {
    out.key("lines").beginArray();
    for (const base::SecretText& line : *response.lines) out.string(line.view());
    out.endArray();
  }
  list(out, "warnings", response.warnings);
  text(out, "value", response.value);
  list(out, "missing", response.missing);
  out.field("directory", response.directory);
  if (response.sessions) {
    out.key("sessions").beginArray();
    for (const TaskSessionInfo& info : *response.sessions) encode(out, info);
    out.endArray();
  }
  out.field("errorCode", response.errorCode);
  text(out, "document", response.document);
  list(out, "publicNames", response.publicNames);
  list(out, "runControlAllowed", response.runControlAllowed);
  out.field("proxyRun", response.proxyRun);
  if (response.usage) encode(out.key("usage"), *response.usage);
  if (response.clipboard) encode(out.key("clipboard"), *response.clipboard);
  out.endObject();
  return out.take();
}

base::SecretText encodeInfo(const AgentInfo& info) {
  JsonWriter out;
  out.beginObject().field("socketPath", info.socketPath).field("token", info.token.view());
  list(out, "capabilities", info.capabilities);
  out.endObject();
  return out.take();
}

}  // namespace sorvane::agent
