#include <map>

#include "agent/owner_action_handlers.h"
#include "base/date.h"
#include "vault/env_export.h"

namespace sorvane::agent {
namespace {

using vault::AccessEvent;

constexpr std::int64_t kDefaultLogEvents = 100;

vault::EnvExportFormat formatOf(const ActionArguments& arguments) {
  const std::string word = arguments.text("format").value_or("env");
  const auto format = vault::envExportFormatOf(word);
  if (!format) throw ActionError("Choose env, json or shell as the format. Nothing was shared.");
  return *format;
}

void writeEvent(base::JsonWriter& out, const AccessEvent& event, const vault::Records& records) {
  out.beginObject().field("id", event.id).field("at", base::iso8601(event.at)).field("actor", event.actor);
  out.field("tool", event.tool).field("source", event.source).field("requestor", event.requestor);
  out.field("secretId", event.secretId).field("projectId", event.projectId);
  if (event.version) out.key("version").integer(*event.version);
  if (const auto* secret = event.secretId ? records.secretById(*event.secretId) : nullptr)
    out.field("secret", secret->name);
  if (const auto* project = event.projectId ? records.projectById(*event.projectId) : nullptr) {
    out.field("environment", project->name);
  }
  out.field("cloudWorkspace", event.cloudWorkspace).endObject();
}

struct Count {
  std::int64_t events = 0;
  base::Date last{};
};

}  // namespace

ActionPlan OwnerActionHandlers::exportOne(const ActionArguments& arguments, ActionCall& call) {
  const vault::Project project = projectNamed(arguments);
  const vault::EnvExportFormat format = formatOf(arguments);
  // What would be refused after the owner's yes is not asked for.
  for (const vault::EnvBinding& binding : project.bindings) ports_.vault.requireUnprotected(binding.secretId);
  ActionPlan plan = asking(call, "export the environment " + project.name + ". Its values leave the vault in the clear",
                           [this, project, format, access = access(call, arguments)] {
                             auto rendered = ports_.vault.render(project.id, project.deploymentTarget,
                                                                 vault::RenderValues::deliver, access);
                             AgentResponse response = withValue(convertLines(rendered.result.lines, format));
                             response.warnings = std::move(rendered.result.warnings);
                             response.missing = std::move(rendered.result.missing);
                             return response;
                           });
  plan.question->prompt.subject = project.name;
  return plan;
}

ActionPlan OwnerActionHandlers::exportSecrets(const ActionArguments& arguments, ActionCall& call) {
  const vault::EnvExportFormat format = formatOf(arguments);
  const auto records = ports_.vault.records();
  std::vector<vault::Selection> selection;
  std::string names;
  for (auto& [name, variable] : arguments.needPairs("selection")) {
    const vault::Secret* const secret = records->secretByName(name);
    if (secret == nullptr) throw ActionError("A selected secret no longer exists. Refresh the selection.");
    ports_.vault.requireUnprotected(secret->id);
    selection.push_back({secret->id, variable});
    names += (names.empty() ? "" : ", ") + secret->name;
  }
  return asking(call, "export secrets. Their values leave the vault in the clear. Secrets: " + names,
                [this, selection, format, access = access(call, arguments)] {
                  return withValue(convertLines(ports_.vault.exportSecrets(selection, access), format));
                });
}

ActionPlan OwnerActionHandlers::exportAll(const ActionArguments& arguments, ActionCall& call) {
  const vault::EnvExportFormat format = formatOf(arguments);
  const std::size_t count = ports_.vault.records()->projects.size();
  return asking(call,
                "export every environment (" + std::to_string(count) + "). Their values leave the vault in the clear",
                [this, format, access = access(call, arguments)] {
                  base::JsonWriter out;
                  out.beginObject().key("environments").beginArray();
                  for (const vault::Exported& exported : ports_.vault.exportAll(access)) {
                    out.beginObject().field("name", exported.name).field("folder", exported.folder);
                    if (exported.lines) out.field("text", convertLines(*exported.lines, format).view());
                    if (!exported.warnings.empty()) out.strings("warnings", exported.warnings);
                    out.field("refused", exported.refused).endObject();
                  }
                  out.endArray().endObject();
                  return withDocument(out);
                });
}

ActionPlan OwnerActionHandlers::log(const ActionArguments& arguments, ActionCall&) {
  const std::int64_t limit = arguments.integer("limit").value_or(kDefaultLogEvents);
  if (limit < 1) throw ActionError("Choose a limit from 1.");
  std::optional<std::string> secretId, projectId;
  if (arguments.text("secret")) secretId = secretNamed(arguments, "secret").id;
  if (arguments.text("environment")) projectId = projectNamed(arguments, "environment").id;
  return answer([=, this] {
    std::vector<AccessEvent> events = ports_.vault.accessLog();
    std::erase_if(events, [&](const AccessEvent& event) {
      return (secretId && event.secretId != secretId) || (projectId && event.projectId != projectId);
    });
    const std::size_t most = static_cast<std::size_t>(limit);
    if (events.size() > most) events.erase(events.begin(), events.end() - limit);
    const auto records = ports_.vault.records();
    base::JsonWriter out;
    out.beginObject().key("events").beginArray();
    for (const AccessEvent& event : events) writeEvent(out, event, *records);
    out.endArray().endObject();
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::logUsage(const ActionArguments&, ActionCall&) {
  return answer([this] {
    std::map<std::string, Count> tools, secrets;
    for (const AccessEvent& event : ports_.vault.accessLog()) {
      ++tools[event.tool].events;
      if (!event.secretId) continue;
      Count& count = secrets[*event.secretId];
      ++count.events;
      count.last = std::max(count.last, event.at);
    }
    const auto records = ports_.vault.records();
    base::JsonWriter out;
    out.beginObject().key("tools").beginArray();
    for (const auto& [tool, count] : tools) {
      out.beginObject().field("tool", tool).key("count").integer(count.events).endObject();
    }
    out.endArray().key("secrets").beginArray();
    for (const auto& [id, count] : secrets) {
      const vault::Secret* const secret = records->secretById(id);
      out.beginObject()
          .field("secretId", id)
          .key("count")
          .integer(count.events)
          .field("last", base::iso8601(count.last));
      if (secret != nullptr) out.field("secret", secret->name);
      out.endObject();
    }
    out.endArray().endObject();
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::logRepair(const ActionArguments& arguments, ActionCall& call) {
  return asking(call, "repair the access log. Lines that cannot be read are moved into a file beside it",
                [this, access = access(call, arguments)] {
                  const vault::LogRepair repair = ports_.vault.repairAccessLog();
                  ports_.vault.log(access);
                  const std::string kept = std::to_string(repair.kept) + " entries are readable";
                  return withValue(base::SecretText(repair.moved == 0 ? kept + "; nothing had to be moved."
                                                                      : kept + "; " + std::to_string(repair.moved) +
                                                                            " unreadable lines were moved to " +
                                                                            repair.movedTo.string() + "."));
                });
}

}  // namespace sorvane::agent
