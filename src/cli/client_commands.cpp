#include <filesystem>
#include <nlohmann/json.hpp>

#include "cli/commands.h"
#include "cli/confirmation.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

/// What must be typed before the vault is deleted.
constexpr std::string_view kDeleteWord = "delete";

// For help and completions; sorvaned decides which it knows.
constexpr const char* kClients = "claude-code,claude-desktop,codex,cursor,vscode,windsurf,gemini-cli,opencode,zed";

struct ClientGiven {
  std::string client, environment, project;
  bool inProject = false, allowReveal = false;
};

std::string projectOf(const ClientGiven& given) {
  return given.inProject ? std::filesystem::current_path().string() : "";
}

std::string stateInWords(const base::Json& client) {
  const std::string state = cell(client, "state");
  if (state == "connected") return "connected";
  if (state == "entryChanged") return "entry changed";
  if (state == "entryGone") return "entry gone";
  if (state == "unreadable") return "file damaged";
  return client.value("found", false) ? "not connected" : "not found";
}

int status(Session& session) {
  const base::Json document = session.read("clientStatus");
  if (session.options().json) return printJson(document), 0;
  std::vector<std::vector<std::string>> rows;
  for (const base::Json& client : items(document, "clients")) {
    const bool connected = client.contains("label");
    const std::string project = cell(client, "project");
    rows.push_back({cell(client, "client") + (project.empty() ? "" : " in " + project), stateInWords(client),
                    !connected                       ? ""
                    : client.contains("environment") ? cell(client, "environment")
                                                     : "every one",
                    client.value("autoApprove", false) ? "yes" : "no", cell(client, "lastRequest")});
  }
  printTable({"CLIENT", "STATE", "ENVIRONMENT", "RUNS UNASKED", "LAST REQUEST"}, rows);
  for (const base::Json& client : items(document, "clients")) {
    if (client.contains("problem")) note(cell(client, "name") + ": " + cell(client, "problem"));
    const std::string state = cell(client, "state");
    if (state == "entryChanged" || state == "entryGone") {
      note("sorvane agent repair " + cell(client, "client") + " writes the entry of " + cell(client, "name") +
           " anew.");
    }
  }
  return 0;
}

/// Whether the client is connected just so already.
bool isConnected(Session& session, const ClientGiven& given) {
  const base::Json document = session.read("clientStatus", {{"client", given.client}});
  for (const base::Json& client : items(document, "clients")) {
    if (cell(client, "project") == projectOf(given) && cell(client, "state") == "connected" &&
        client.contains("label") && cell(client, "environment") == given.environment &&
        client.value("allowReveal", false) == given.allowReveal) {
      return true;
    }
  }
  return false;
}

int change(Session& session, const std::string& action, const ClientGiven& given) {
  if (action == "clientConnect" && isConnected(session, given)) {
    session.options().json ? printJson({{"ok", true}, {"value", "already connected"}})
                           : note("It is connected already, so nothing was changed.");
    return 0;
  }
  Session::Arguments arguments{{"client", given.client}};
  if (!projectOf(given).empty()) arguments["project"] = projectOf(given);
  if (!given.environment.empty()) arguments["environment"] = given.environment;
  if (given.allowReveal) arguments["allowReveal"] = "true";
  const auto response = session.manage(action, arguments, Session::Asks::yes);
  const std::string sentence(valueOf(response).view());
  session.options().json ? printJson({{"ok", true}, {"value", sentence}}) : note(sentence);
  return 0;
}

int uninstall(Session& session, bool dryRun, bool withVault) {
  const Session::Arguments arguments{{"withVault", withVault ? "true" : "false"}};
  const base::Json plan = session.read("uninstallPlan", arguments);
  if (dryRun && session.options().json) return printJson(plan), 0;
  if (!session.options().json) {
    printLine(dryRun ? "This would be done:" : "This will be done:");
    for (const base::Json& step : items(plan, "steps")) printLine("  - " + step.get<std::string>());
  }
  if (dryRun) return 0;
  if (withVault) {
    if (!canAsk(session.options())) {
      throw Failure(kUsage, "no_input", "Deleting the vault is confirmed by typing a word. Run this in a terminal.");
    }
    const auto word = typedLine("Every secret will be gone for good. Type " + std::string(kDeleteWord) + " to go on: ");
    if (word != kDeleteWord) throw Failure(kFailed, "not_confirmed", "The word was not typed, so nothing was changed.");
  }
  const auto response = session.manage("uninstall", arguments, Session::Asks::yes);
  const auto report = response.document ? base::parseJson(response.document->view()) : std::nullopt;
  if (!report) throw notUnderstood();
  if (session.options().json) return printJson(*report), 0;
  for (const base::Json& line : items(*report, "report")) printLine(line.get<std::string>());
  printLine("Remove the programs as you installed them; sorvaned may still run.");
  return 0;
}

}  // namespace

void Commands::addClients(CLI::App& group) {
  group.add_subcommand("status", "Every agent client: found, connected, entry changed, last request")->callback([this] {
    action = status;
  });
  struct Row {
    const char* name;
    const char* action;
    const char* help;
  };
  for (const Row& row : {Row{"connect", "clientConnect", "Write sorvane's entry into a client's configuration (asks)"},
                         Row{"disconnect", "clientDisconnect", "Take the entry back and remove the connection (asks)"},
                         Row{"repair", "clientRepair", "Write the entry anew with a fresh token (asks)"}}) {
    const auto given = std::make_shared<ClientGiven>();
    CLI::App& command = *group.add_subcommand(row.name, row.help);
    command.add_option("client", given->client, "The client, such as claude-code")
        ->required()
        ->type_name(std::string("{") + kClients + "}");
    command.add_flag("--project", given->inProject, "For the project in this folder only, in its own file");
    if (std::string(row.name) == "connect") {
      command.add_option("--env", given->environment, "The one environment it may use");
      command.add_flag("--allow-reveal", given->allowReveal, "Let it read raw values, each after a question");
    }
    command.callback([this, given, action_ = std::string(row.action)] {
      action = [given, action_](Session& session) { return change(session, action_, *given); };
    });
  }
}

void Commands::addUninstall(CLI::App& app) {
  const auto dryRun = std::make_shared<bool>(false), withVault = std::make_shared<bool>(false);
  CLI::App& command = *app.add_subcommand(
      "uninstall", "Take back every change that sorvane made to agent clients, and remove the connections (asks)");
  command.add_flag("--dry-run", *dryRun, "Only show what would be done");
  command.add_flag("--with-vault", *withVault, "Delete the vault with every secret too");
  command.callback([this, dryRun, withVault] {
    action = [dryRun, withVault](Session& session) { return uninstall(session, *dryRun, *withVault); };
  });
}

}  // namespace sorvane::cli
