#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>

#include "base/unicode.h"
#include "cli/commands.h"
#include "cli/confirmation.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

struct ImportGiven {
  std::string folder, environment;
  bool dryRun = false;
};

const std::map<std::string, std::string, std::less<>> kOutcomes{
    {"new", "new secret"},
    {"exists", "a secret of this name exists; used when it holds this value"},
    {"unchanged", "bound already, kept"},
    {"excluded", "no credential"},
    {"runControl", "changes how programs start"},
    {"tooLarge", "over 4 KB"}};

agent::AgentRequest importRequest(const ImportGiven& given) {
  agent::AgentRequest request;
  request.op = agent::AgentOp::importProject;
  request.directory = std::filesystem::absolute(given.folder).lexically_normal().string();
  if (!given.environment.empty()) request.environment = given.environment;
  return request;
}

base::Json documentOf(const agent::AgentResponse& response) {
  auto json = response.document ? base::parseJson(response.document->view()) : std::nullopt;
  if (!json || !json->is_object()) throw notUnderstood();
  return std::move(*json);
}

/// The way from the folder, which is shorter to read.
std::string shortPath(const base::Json& plan, const base::Json& file) {
  const std::filesystem::path path(cell(file, "path"));
  return path.lexically_relative(cell(plan, "folder")).string();
}

void showPlan(const base::Json& plan) {
  std::vector<std::vector<std::string>> rows;
  for (const base::Json& file : items(plan, "files")) {
    const std::string name = shortPath(plan, file);
    if (file.contains("error")) rows.push_back({name, "", "", "", cell(file, "error")});
    for (const base::Json& key : items(file, "keys")) {
      const auto words = kOutcomes.find(cell(key, "outcome"));
      rows.push_back({name, cell(key, "name"), cell(key, "length"), cell(file, "environment"),
                      words == kOutcomes.end() ? cell(key, "outcome") : words->second});
    }
  }
  if (rows.empty())
    printLine("There is no .env file in this folder.");
  else
    printTable({"FILE", "KEY", "BYTES", "ENVIRONMENT", "WHAT BECOMES OF IT"}, rows);
  for (const base::Json& file : items(plan, "files")) {
    for (const base::Json& name : items(file, "duplicates")) {
      note(shortPath(plan, file) + " holds " + name.get<std::string>() + " more than once; the last one counts.");
    }
  }
  if (!rows.empty()) {
    printLine(
        "Comments, placeholders and unsupported lines are skipped. Existing bindings keep their saved values; source "
        "values are not compared.");
  }
  for (const base::Json& folder : items(plan, "unreadable")) {
    note("The folder " + folder.get<std::string>() + " could not be read.");
  }
}

/// Keys whose secret gets the file's value when it holds another one, as the person at the terminal chooses.
std::vector<std::string> chosenNewVersions(const base::Json& plan) {
  std::vector<std::string> chosen;
  for (const base::Json& file : items(plan, "files")) {
    for (const base::Json& key : items(file, "keys")) {
      if (cell(key, "outcome") != "exists") continue;
      const std::string name = cell(key, "name");
      if (confirmed("There is a secret " + name + ". If it holds another value than " + shortPath(plan, file) +
                    ", give it this one as a new version?")) {
        chosen.push_back(cell(file, "path") + "\n" + name);
      }
    }
  }
  return chosen;
}

void proposeTargets(Session& session, const base::Json& plan) {
  for (const base::Json& file : items(plan, "files")) {
    if (!file.contains("proposedTarget") || file.value("environmentExists", false)) continue;
    const std::string environment = cell(file, "environment"), target = cell(file, "proposedTarget");
    if (!confirmed("Set the deployment target of '" + environment + "' to " + target + "?")) continue;
    session.manage("environmentTarget", {{"name", environment}, {"target", target}}, Session::Asks::yes);
  }
}

int import(Session& session, const ImportGiven& given) {
  agent::AgentRequest looking = importRequest(given);
  looking.payload["dryRun"] = "true";
  const base::Json plan = documentOf(session.send(std::move(looking), false));
  if (given.dryRun) {
    if (session.options().json) return printJson(plan), 0;
    return showPlan(plan), 0;
  }
  const bool asks = canAsk(session.options()) && !session.options().json;
  if (!session.options().json) showPlan(plan);
  agent::AgentRequest request = importRequest(given);
  if (asks) request.payload["newVersions"] = listArgument(chosenNewVersions(plan));
  const agent::AgentResponse response = session.send(std::move(request), true);
  const base::Json report = documentOf(response);
  if (session.options().json) return printJson(report), 0;
  bool failed = false;
  for (const base::Json& file : items(report, "files")) {
    if (file.contains("error")) failed = true, note(cell(file, "path") + ": " + cell(file, "error"));
    for (const auto& [key, reason] : file["failedReasons"].items()) {
      failed = true;
      note(key + ": " + reason.get<std::string>());
    }
  }
  note(valueOf(response).view());
  if (asks) proposeTargets(session, plan);
  return failed ? kFailed : 0;
}

int scan(Session& session, const std::string& folder) {
  const base::Json document = session.read("scan", {{"folder", std::filesystem::absolute(folder).string()}});
  if (session.options().json) return printJson(document), 0;
  std::vector<std::vector<std::string>> rows;
  for (const base::Json& finding : items(document, "findings")) {
    rows.push_back({cell(finding, "file") + ":" + cell(finding, "line"), cell(finding, "key"), cell(finding, "masked"),
                    cell(finding, "kind")});
  }
  if (rows.empty()) return printLine("Nothing credential-shaped was found."), 0;
  printTable({"WHERE", "KEY", "VALUE", "LOOKS LIKE"}, rows);
  return 0;
}

}  // namespace

void Commands::addImport(CLI::App& app) {
  const auto given = std::make_shared<ImportGiven>();
  CLI::App& command = *app.add_subcommand(
      "import",
      "Pick a folder. sorvane finds .env files and imports the keys that look like credentials. It skips settings such "
      "as PORT and NODE_ENV.\nIt asks; original files are kept. Example: sorvane import .");
  command.add_option("folder", given->folder, "The project's folder")->required();
  command.add_flag("--dry-run", given->dryRun, "Only show what would be imported");
  command.add_option("--env", given->environment, "Put everything into this environment");
  command.callback([this, given] { action = [given](Session& session) { return import(session, *given); }; });
}

void Commands::addScan(CLI::App& app) {
  const auto folder = std::make_shared<std::string>();
  CLI::App& command = *app.add_subcommand(
      "scan", "Look for credentials in a folder's .env files and in agent clients' configuration files");
  command.add_option("folder", *folder, "The project's folder")->required();
  command.callback([this, folder] { action = [folder](Session& session) { return scan(session, *folder); }; });
}

}  // namespace sorvane::cli
