#include <algorithm>
#include <filesystem>
#include <map>

#include "agent/handlers.h"
#include "agent/owner_action_handlers.h"
#include "agent/task_sessions.h"
#include "base/date.h"

namespace sorvane::agent {
namespace {

constexpr std::string_view kRunsUnasked =
    "This client is set to run these tools without asking you itself, so sorvane's question is the only one.";

std::string labelOf(const ClientConnection& connection) {
  if (connection.project.empty()) return connection.name;
  return connection.name + " (" + std::filesystem::path(connection.project).filename().string() + ")";
}

const ClientGrant* grantOf(const std::vector<ClientGrant>& grants, std::string_view id) {
  const auto found = std::find_if(grants.begin(), grants.end(), [&](const ClientGrant& g) { return g.id == id; });
  return found == grants.end() ? nullptr : &*found;
}

/// When each connection used the vault last, by its label.
std::map<std::string, base::Date> lastRequests(vault::Vault& vault) {
  std::map<std::string, base::Date> last;
  for (const vault::AccessEvent& event : vault.accessLog()) {
    if (event.source == "agent") last[event.actor] = event.at;
  }
  return last;
}

void writeConnection(base::JsonWriter& out, const ClientConnection& connection, const ClientGrant* grant,
                     const std::map<std::string, base::Date>& last) {
  out.beginObject().field("client", connection.client).field("name", connection.name);
  if (!connection.project.empty()) out.field("project", connection.project);
  out.field("file", connection.file).key("found").boolean(connection.found).field("state", connection.state);
  out.key("autoApprove").boolean(connection.runsUnasked).field("problem", connection.problem);
  if (grant != nullptr) {
    out.field("label", grant->label).field("environment", grant->environment);
    out.key("allowReveal").boolean(grant->allowReveal);
    if (const auto used = last.find(grant->label); used != last.end())
      out.field("lastRequest", base::iso8601(used->second));
  }
  out.endObject();
}

std::string doneSentence(const std::string& undone, const ClientConnection& connection) {
  if (undone == "leftChanged") {
    return "Disconnected. The entry in " + connection.file +
           " was changed by somebody since, so it was left as it is; remove it by hand.";
  }
  if (undone == "gone") return "Disconnected. The entry in " + connection.file + " was gone already.";
  return "Disconnected. The entry in " + connection.file + " was taken back.";
}

}  // namespace

ActionPlan OwnerActionHandlers::clientStatus(const ActionArguments& arguments, ActionCall&) {
  const auto wanted = arguments.text("client");
  return answer([this, wanted] {
    const GrantStore::View view = ports_.grants.view();
    const bool trusted = view.trusted;
    const auto& grants = view.grants;
    const auto last = lastRequests(ports_.vault);
    base::JsonWriter out;
    out.beginObject().key("clients").beginArray();
    for (const ClientConnection& connection : ports_.application.clients()) {
      if (wanted && *wanted != connection.client) continue;
      const ClientGrant* const grant = grantOf(grants, connection.grantId);
      if (trusted && grant != nullptr && grant->autoApprove != connection.runsUnasked) {
        ports_.grants.noteAutoApprove(grant->id, connection.runsUnasked);
      }
      writeConnection(out, connection, grant, last);
    }
    out.endArray().endObject();
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::writeEntry(ClientConnection plan, GrantStore::NewGrant grant, const std::string& phrase,
                                           const ActionArguments& arguments, ActionCall& call) {
  std::vector<std::string> details{"It writes its entry into " + plan.file + "."};
  details.push_back(plan.tokenInFile ? "The connection's token stands in that file, which only you can read."
                                     : "The connection's token stays in sorvane's own folder.");
  details.push_back("It may use " +
                    (grant.environment ? "the environment " + *grant.environment : "every environment") +
                    ". Raw values are " + (grant.allowReveal ? "allowed." : "off."));
  if (plan.replaces)
    details.emplace_back("An entry named sorvane that stands there is replaced; disconnecting puts it back.");
  if (plan.runsUnasked) details.emplace_back(kRunsUnasked);
  return asking(
      call, phrase,
      [this, plan = std::move(plan), grant = std::move(grant), access = access(call, arguments)] {
        const auto view = ports_.grants.view();
        const ClientGrant* const earlier = grantOf(view.grants, plan.grantId);
        GrantStore::Added added = ports_.grants.add(grant, plan.grantId);
        try {
          ports_.application.connectClient(plan, {added.id, std::move(added.token), grant.allowReveal});
        } catch (...) {
          ports_.grants.removeById(added.id);
          throw;
        }
        // The earlier connection serves until the entry of the new one stands in the file.
        if (earlier != nullptr) {
          ports_.grants.removeById(earlier->id);
          ports_.sessions.endOf(earlier->tokenHash);
        }
        if (plan.runsUnasked) ports_.grants.noteAutoApprove(added.id, true);
        ports_.vault.log(access);
        return withValue(base::SecretText("Connected " + grant.label + " in " + plan.file +
                                          ". Restart it so that it loads sorvane."));
      },
      std::move(details));
}

ActionPlan OwnerActionHandlers::clientConnect(const ActionArguments& arguments, ActionCall& call) {
  ClientConnection plan =
      ports_.application.planClient(arguments.need("client"), arguments.text("project").value_or(""));
  GrantStore::NewGrant grant{labelOf(plan), {}, arguments.boolean("allowReveal").value_or(false)};
  const auto scope = arguments.text("environment");
  if (scope && !scope->empty()) grant.environment = projectNamed(arguments, "environment").name;
  const std::string phrase = "connect an agent client. Client: " + grant.label;
  return writeEntry(std::move(plan), std::move(grant), phrase, arguments, call);
}

ActionPlan OwnerActionHandlers::clientRepair(const ActionArguments& arguments, ActionCall& call) {
  const std::string client = arguments.need("client"), project = arguments.text("project").value_or("");
  ClientConnection plan = ports_.application.planClient(client, project);
  if (plan.grantId.empty()) {
    throw ActionError(plan.name + " is not connected, so there is nothing to repair. Connect it.");
  }
  const auto view = ports_.grants.view();
  const ClientGrant* const earlier = grantOf(view.grants, plan.grantId);
  // What a file that is not trusted says of a connection must not widen it.
  if (!view.trusted || earlier == nullptr) {
    throw ActionError("The connection of " + plan.name +
                      " is not known to sorvane any more, so its entry was not written. Disconnect it and connect it "
                      "again.");
  }
  GrantStore::NewGrant grant{earlier->label, earlier->environment, earlier->allowReveal};
  const std::string phrase = "write the entry of an agent client anew. Client: " + grant.label;
  return writeEntry(std::move(plan), std::move(grant), phrase, arguments, call);
}

ActionPlan OwnerActionHandlers::clientDisconnect(const ActionArguments& arguments, ActionCall& call) {
  const ClientConnection connection =
      ports_.application.client(arguments.need("client"), arguments.text("project").value_or(""));
  if (connection.grantId.empty()) throw ActionError(connection.name + " is not connected. Nothing was changed.");
  return asking(call, "disconnect an agent client. Client: " + labelOf(connection),
                [this, connection, access = access(call, arguments)] {
                  const auto view = ports_.grants.view();
                  const ClientGrant* const grant = grantOf(view.grants, connection.grantId);
                  // The grant first: a file that cannot be changed must not keep a token alive.
                  if (grant != nullptr) {
                    ports_.grants.removeById(grant->id);
                    ports_.sessions.endOf(grant->tokenHash);
                  }
                  const std::string undone = ports_.application.disconnectClient(connection.client, connection.project);
                  ports_.vault.log(access);
                  return withValue(base::SecretText(doneSentence(undone, connection)));
                });
}

ActionPlan OwnerActionHandlers::scan(const ActionArguments& arguments, ActionCall&) {
  const auto folder = existingFolder(arguments.need("folder"));
  if (!folder) throw ActionError("scan needs an existing absolute folder. Nothing was read.");
  return answer([this, folder = *folder] {
    base::JsonWriter out;
    out.beginObject().key("findings").beginArray();
    for (const FolderFinding& finding : ports_.application.scan(folder)) {
      out.beginObject().field("file", finding.file).key("line").integer(finding.line).field("key", finding.key);
      out.field("masked", finding.masked).field("kind", finding.kind).endObject();
    }
    out.endArray().endObject();
    return withDocument(out);
  });
}

std::vector<std::string> OwnerActionHandlers::uninstallSteps(bool withVault) {
  std::vector<std::string> steps;
  for (const ClientConnection& connection : ports_.application.clients()) {
    if (!connection.grantId.empty())
      steps.push_back("Take the entry of " + labelOf(connection) + " out of " + connection.file);
  }
  steps.emplace_back("End every task session and delete the key files that nobody changed");
  steps.emplace_back("Remove every agent connection");
  steps.emplace_back(withVault ? "Delete the vault with every secret in it, and every vault that a restore set aside"
                               : "Keep the vault");
  return steps;
}

ActionPlan OwnerActionHandlers::uninstallPlan(const ActionArguments& arguments, ActionCall&) {
  const bool withVault = arguments.boolean("withVault").value_or(false);
  return answer([this, withVault] {
    base::JsonWriter out;
    out.beginObject().strings("steps", uninstallSteps(withVault)).endObject();
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::uninstall(const ActionArguments& arguments, ActionCall& call) {
  const bool withVault = arguments.boolean("withVault").value_or(false);
  std::vector<std::string> details = uninstallSteps(withVault);
  const std::string phrase = withVault ? "remove sorvane's changes from this computer and delete the vault"
                                       : "remove sorvane's changes from this computer";
  return asking(
      call, phrase,
      [this, withVault, access = access(call, arguments)] {
        std::vector<std::string> done;
        const auto attempt = [&](const std::string& what, const std::function<std::string()>& step) {
          try {
            done.push_back(step());
          } catch (const base::Error& error) {
            done.push_back(what + " failed: " + error.sentence());
          }
        };
        ports_.vault.log(access);
        for (const ClientConnection& connection : ports_.application.clients()) {
          if (connection.grantId.empty()) continue;
          attempt(labelOf(connection), [&] {
            return labelOf(connection) + ": " +
                   doneSentence(ports_.application.disconnectClient(connection.client, connection.project), connection);
          });
        }
        ports_.sessions.endAll();
        done.emplace_back("Every task session was ended.");
        for (const ClientGrant& grant : ports_.grants.view().grants) {
          attempt(grant.label, [&] {
            ports_.grants.removeById(grant.id);
            return "The agent connection " + grant.label + " was removed.";
          });
        }
        if (withVault)
          attempt("Deleting the vault", [&] {
            ports_.application.removeVault();
            return std::string("The vault was deleted. sorvaned ends now.");
          });
        else
          done.emplace_back("The vault was kept.");
        base::JsonWriter out;
        out.beginObject().strings("report", done).endObject();
        return withDocument(out);
      },
      std::move(details));
}

}  // namespace sorvane::agent
