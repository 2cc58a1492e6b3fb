#include <nlohmann/json.hpp>

#include "cli/commands.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

int list(Session& session) {
  const base::Json document = session.read("environmentList");
  if (session.options().json) return printJson(document), 0;
  if (items(document, "environments").empty())
    return printLine("There are no environments yet. sorvane env create NAME makes one."), 0;
  std::vector<std::vector<std::string>> rows;
  for (const base::Json& environment : items(document, "environments")) {
    const std::string missing = cell(environment, "missing");
    rows.push_back({cell(environment, "name"),
                    cell(environment, "variables") + (missing == "0" ? "" : " (" + missing + " missing)"),
                    cell(environment, "deploymentTarget"), cell(environment, "rootPath")});
  }
  printTable({"NAME", "VARIABLES", "TARGET", "FOLDER"}, rows);
  return 0;
}

int show(Session& session, const Session::Arguments& arguments) {
  const base::Json environment = session.read("environmentShow", arguments);
  if (session.options().json) return printJson(environment), 0;
  std::vector<std::vector<std::string>> fields;
  for (const auto& [heading, field] : {std::pair{"Name", "name"},
                                       {"Notes", "description"},
                                       {"Target", "deploymentTarget"},
                                       {"Folder", "rootPath"},
                                       {"Created", "createdAt"},
                                       {"Changed", "updatedAt"},
                                       {"Id", "id"}}) {
    if (const std::string text = cell(environment, field); !text.empty()) fields.push_back({heading, text});
  }
  printTable({"FIELD", "VALUE"}, fields);
  printLine("");
  std::vector<std::vector<std::string>> rows;
  for (const base::Json& binding : items(environment, "bindings")) {
    std::string notes = cell(binding, "problem");
    if (binding.contains("pinVersion")) notes += std::string(notes.empty() ? "" : "; ") + "pinned";
    if (binding.value("allowsRunControl", false))
      notes += std::string(notes.empty() ? "" : "; ") + "reaches commands as a run-control name";
    rows.push_back({cell(binding, "envVarName"), cell(binding, "secret"),
                    binding.contains("version") ? "v" + cell(binding, "version") : "", notes});
  }
  printTable({"VARIABLE", "SECRET", "VERSION", "NOTES"}, rows);
  return 0;
}

struct Plain {
  const char* name;
  const char* help;
  const char* action;
  Session::Asks asks;
  const char* done;
};

}  // namespace

void Commands::addEnvironment(CLI::App& app) {
  CLI::App& group = *app.add_subcommand("env", "Make environments and bind secrets to their variables");
  group.require_subcommand(1);
  group.add_subcommand("list", "Names, variables and targets")->callback([this] { action = list; });
  const auto shown = std::make_shared<Given>();
  CLI::App& showing = *group.add_subcommand("show", "The variables of an environment, in their order");
  shown->text(showing, "name", "name", "Name of the environment")->required();
  showing.callback([this, shown] { action = [shown](Session& session) { return show(session, shown->arguments); }; });

  std::shared_ptr<Given> given;
  const auto plain = [&](const Plain& p) -> CLI::App& {
    given = std::make_shared<Given>();
    CLI::App& command = *group.add_subcommand(p.name, p.help);
    given->text(command, "name", "name", "Name of the environment")->required();
    command.callback([this, given = given, p] {
      action = [given, p](Session& session) {
        const auto response = session.manage(p.action, given->arguments, p.asks);
        if (session.options().json) {
          return printJson({{"ok", true}, {"value", response.value ? std::string(response.value->view()) : ""}}), 0;
        }
        note(p.done);
        return 0;
      };
    });
    return command;
  };
  using Asks = Session::Asks;
  CLI::App* command = &plain({"create", "Make an empty environment", "environmentAdd", Asks::no, "Created."});
  given->text(*command, "--notes", "description", "Notes");
  given->text(*command, "--folder", "folder", "Folder of the project on disk");
  given->text(*command, "--target", "target", "development, staging or production");

  command = &plain({"edit", "Change its notes and folder", "environmentEdit", Asks::no, "Changed."});
  given->text(*command, "--notes", "description", "Notes");
  given->text(*command, "--folder", "folder", "Folder of the project on disk (\"\" clears it)");

  command = &plain({"bind", "Bind a secret to a variable (asks)", "environmentBind", Asks::yes, "Bound."});
  given->text(*command, "variable", "variable", "Name of the variable")->required();
  given->text(*command, "secret", "secret", "Name of the secret")->required();
  given->text(*command, "--pin", "pin", "Always this version");
  given->flag(*command, "--run-control", "runControl", "Let a variable that changes how programs start reach commands");

  command = &plain({"unbind", "Take a variable out (asks)", "environmentUnbind", Asks::yes, "Unbound."});
  given->text(*command, "variable", "variable", "Name of the variable")->required();

  command = &plain({"move", "Move a variable to another place in the order", "environmentMove", Asks::no, "Moved."});
  given->text(*command, "variable", "variable", "Name of the variable")->required();
  given->text(*command, "position", "position", "Its new place, from 1")->required();

  command = &plain({"target", "Set the deployment target (asks)", "environmentTarget", Asks::yes, "Changed."});
  given->text(*command, "target", "target", "development, staging or production; \"\" for none")->required();

  command = &plain({"rename", "Give it another name (asks)", "environmentRename", Asks::yes, "Renamed."});
  given->text(*command, "new-name", "newName", "The new name")->required();

  plain({"rm", "Delete it; its secrets stay (asks)", "environmentRemove", Asks::yes, "Deleted. Its secrets stay."});
}

}  // namespace sorvane::cli
