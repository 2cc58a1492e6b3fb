#include <nlohmann/json.hpp>

#include "base/date.h"
#include "cli/mcp_tools.h"

namespace sorvane::cli::mcp {
namespace {

using agent::AgentResponse;

/// A result in the making: the text for the model and, when `structured` was opened, the same for programs.
struct Shown {
  base::SecretText text;
  base::JsonWriter structured;
  bool hasStructured = false;

  base::JsonWriter& open() {
    hasStructured = true;
    return structured.beginObject();
  }
  /// A part of the text on a line of its own.
  void line(std::string_view words) {
    if (!text.empty() && !text.view().ends_with('\n')) text.push_back('\n');
    text.append(words);
  }
};

const std::vector<std::string>& listOf(const std::optional<std::vector<std::string>>& list) {
  static const std::vector<std::string> none;
  return list ? *list : none;
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

void showEnvironments(const AgentResponse& response, Shown& shown) {
  const auto& names = listOf(response.names);
  for (const std::string& name : names) shown.line(name);
  if (names.empty()) {
    shown.line(
        "There is no environment for this agent yet. create_environment or import_project adds one, after asking the "
        "owner.");
  }
  shown.open().strings("environments", names).endObject();
}

void showSecrets(const AgentResponse& response, Shown& shown) {
  const auto& names = listOf(response.names);
  const auto& variables = listOf(response.publicNames);
  shown.open().key("secrets").beginArray();
  for (std::size_t i = 0; i < names.size(); ++i) {
    shown.structured.beginObject().field("name", names[i]);
    if (i < variables.size()) shown.structured.field("variable", variables[i]);
    shown.structured.endObject();
    shown.line(i < variables.size() ? variables[i] + " holds " + names[i] : names[i]);
  }
  shown.structured.endArray().endObject();
  if (names.empty())
    shown.line("The environment holds no secret. add_to_environment adds one, after asking the owner.");
}

/// The answer's document as structured content, when it is a JSON object.
std::optional<base::Json> showDocument(const AgentResponse& response, Shown& shown) {
  auto document = response.document ? base::parseJson(response.document->view()) : std::nullopt;
  if (!document || !document->is_object()) return std::nullopt;
  shown.hasStructured = true;
  shown.structured.raw(response.document->view());
  return document;
}

void showRun(const AgentResponse& response, Shown& shown) {
  if (response.value) shown.text.append(response.value->view());
  const auto document = showDocument(response, shown);
  const auto exitCode = document ? document->find("exitCode") : base::Json::const_iterator();
  if (document && exitCode != document->end() && exitCode->is_number_integer()) {
    shown.line("Exit code: " + exitCode->dump());
  }
}

void writeSession(base::JsonWriter& out, const agent::TaskSessionInfo& session) {
  out.beginObject()
      .field("id", std::string_view(session.id))
      .field("environment", std::string_view(session.environment));
  out.field("client", std::string_view(session.client));
  out.field("startedAt", std::string_view(base::iso8601(session.startedAt)));
  out.field("expiresAt", std::string_view(base::iso8601(session.expiresAt)));
  if (session.proxy) {
    const agent::ProxySessionSummary& proxy = *session.proxy;
    out.key("proxy").beginObject().field("display", std::string_view(proxy.display));
    out.strings("providers", proxy.providers).key("spentCents").integer(proxy.spentCents);
    out.key("budgetCents").integer(proxy.budgetCents).key("calls").integer(proxy.calls).endObject();
  }
  out.endObject();
}

std::string sessionLine(const agent::TaskSessionInfo& session) {
  std::string line =
      session.id + ": environment " + session.environment + ", until " + base::iso8601(session.expiresAt);
  if (!session.proxy) return line;
  const auto cents = [](std::int64_t number) { return std::to_string(number) + (number == 1 ? " cent" : " cents"); };
  line += ", its stand-in spent " + cents(session.proxy->spentCents) + " of " + cents(session.proxy->budgetCents);
  return line;
}

void showSessions(const AgentResponse& response, Shown& shown) {
  shown.open().key("sessions").beginArray();
  if (response.sessions) {
    for (const auto& session : *response.sessions) {
      writeSession(shown.structured, session);
      shown.line(sessionLine(session));
    }
  }
  shown.structured.endArray().endObject();
  if (shown.text.empty()) shown.line("No task session of this agent is alive. begin_task_session asks for one.");
}

void showUsage(const AgentResponse& response, Shown& shown) {
  const agent::UsageStatus usage = response.usage.value_or(agent::UsageStatus());
  base::JsonWriter& out = shown.open();
  out.key("percent").integer(usage.percent).field("used", usage.used).field("allowance", usage.allowance);
  shown.line("Used " + usage.used.value_or("$0.00") + " of " + usage.allowance.value_or("$0.00") + " (" +
             std::to_string(usage.percent) + " percent).");
  out.key("sessions").beginArray();
  if (response.sessions) {
    for (const auto& session : *response.sessions) {
      writeSession(out, session);
      shown.line(sessionLine(session));
    }
  }
  out.endArray().endObject();
}

void showSession(const AgentResponse& response, Shown& shown) {
  if (!response.sessions || response.sessions->empty()) return;
  const auto& session = response.sessions->front();
  shown.line("Task session " + sessionLine(session) + ". Pass this id as taskSession to run_with_env.");
  writeSession(shown.open().key("session"), session);
  shown.structured.endObject();
}

void showClipboard(const AgentResponse& response, Shown& shown) {
  const agent::ClipboardPeek peek = response.clipboard.value_or(agent::ClipboardPeek());
  base::JsonWriter& out = shown.open();
  out.key("detected").boolean(peek.detected);
  out.field("suggestedName", peek.suggestedName).field("kind", peek.kind).field("masked", peek.masked);
  out.field("fingerprint", peek.fingerprint).field("note", peek.note).endObject();
  if (!peek.detected) return shown.line(peek.note.value_or("Nothing credential-shaped is on the clipboard."));
  shown.line("The clipboard holds a credential: " + peek.kind.value_or("of an unknown kind") + ", " +
             peek.masked.value_or("masked") + ".");
  if (peek.note) shown.line(*peek.note);
  if (peek.suggestedName) shown.line("Suggested name: " + *peek.suggestedName);
  if (peek.fingerprint) shown.line("Fingerprint: " + *peek.fingerprint);
}

void showText(const AgentResponse& response, Shown& shown) {
  if (response.value) return shown.text.append(response.value->view());
  if (response.document) shown.text.append(response.document->view());
}

void show(Shape shape, const AgentResponse& response, Shown& shown) {
  switch (shape) {
    case Shape::environments:
      return showEnvironments(response, shown);
    case Shape::secrets:
      return showSecrets(response, shown);
    case Shape::run:
      return showRun(response, shown);
    case Shape::session:
      return showSession(response, shown);
    case Shape::sessions:
      return showSessions(response, shown);
    case Shape::usage:
      return showUsage(response, shown);
    case Shape::clipboard:
      return showClipboard(response, shown);
    case Shape::report:
      showText(response, shown);
      showDocument(response, shown);
      return;
    case Shape::sentence:
    case Shape::value:
    case Shape::pending:
      return showText(response, shown);
  }
}

std::string_view codeOf(const AgentResponse& response) {
  if (response.errorCode) return *response.errorCode;
  return response.error == "approval denied" ? "approval_denied" : "refused";
}

void showRefusal(Shape shape, const AgentResponse& response, Shown& shown) {
  shown.line(response.error.value_or("sorvaned refused without saying why. Nothing was shared."));
  if (shape == Shape::run && response.value) shown.line(response.value->view());
  shown.open().field("errorCode", codeOf(response)).endObject();
}

/// What comes with any answer: what was left out, and a notice beside a success.
void showRemarks(const AgentResponse& response, Shown& shown) {
  for (const std::string& warning : listOf(response.warnings)) shown.line("Warning: " + warning);
  if (!listOf(response.missing).empty()) shown.line("Not in the vault: " + joined(*response.missing));
  if (response.ok && response.error) shown.line(*response.error);
}

void write(base::JsonWriter& out, const Shown& shown, bool isError) {
  out.key("content").beginArray().beginObject().field("type", "text").field("text", shown.text.view());
  out.endObject().endArray();
  if (shown.hasStructured) out.key("structuredContent").raw(shown.structured.view());
  out.key("isError").boolean(isError);
}

}  // namespace

void writeToolResult(base::JsonWriter& out, Shape shape, const AgentResponse& response) {
  Shown shown;
  if (response.ok)
    show(shape, response, shown);
  else
    showRefusal(shape, response, shown);
  // A value stands alone, so that what an agent takes from the text is the value.
  if (shape != Shape::value || !response.ok) showRemarks(response, shown);
  if (response.ok && shown.text.empty()) shown.line(shape == Shape::run ? "The command printed nothing." : "Done.");
  write(out, shown, !response.ok);
}

void writePending(base::JsonWriter& out, std::string_view pendingId) {
  Shown shown;
  shown.line(
      "The owner has not decided yet, or what was allowed is still running. Call check_pending with this pendingId to "
      "wait for the answer: ");
  shown.text.append(pendingId);
  shown.open().key("pending").boolean(true).field("pendingId", pendingId).endObject();
  write(out, shown, false);
}

}  // namespace sorvane::cli::mcp
