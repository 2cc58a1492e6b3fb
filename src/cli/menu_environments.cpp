#include <filesystem>
#include <nlohmann/json.hpp>

#include "cli/menu.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

using Asks = Session::Asks;

std::string summary(const base::Json& environment) {
  std::string text = cell(environment, "name") + ", variables: " + cell(environment, "variables");
  if (const std::string missing = cell(environment, "missing"); missing != "0") text += " (" + missing + " missing)";
  if (const std::string target = cell(environment, "deploymentTarget"); !target.empty()) text += ", " + target;
  if (const std::string folder = cell(environment, "rootPath"); !folder.empty()) text += ", " + folder;
  return text;
}

/// A folder as the person means it: from here, where sorvane was started.
std::string absolute(const std::string& folder) {
  return folder.empty() ? "" : std::filesystem::absolute(folder).string();
}

Then create(const Menu& menu) {
  Session::Arguments arguments{{"name", menu.text("Name of the environment, such as Development")}};
  if (const auto folder = menu.optionalText("Folder of the project", "none")) arguments["folder"] = absolute(*folder);
  if (const std::string target = menu.target("none"); !target.empty()) arguments["target"] = target;
  menu.change("environmentAdd", std::move(arguments), Asks::no, "Created.");
  return Then::stay;
}

Then bind(const Menu& menu, const std::string& name) {
  Session::Arguments arguments{{"name", name}, {"secret", menu.someSecret()}};
  arguments["variable"] = menu.optionalText("Name of the variable", arguments["secret"]).value_or(arguments["secret"]);
  if (const auto version = menu.optionalText("Version", "always the current one")) arguments["pin"] = *version;
  menu.change("environmentBind", std::move(arguments), Asks::yes, "Bound.");
  return Then::stay;
}

Then unbind(const Menu& menu, const std::string& name) {
  std::vector<std::string> variables;
  const base::Json environment = menu.read("environmentShow", {{"name", name}});
  for (const base::Json& binding : items(environment, "bindings")) variables.push_back(cell(binding, "envVarName"));
  const std::string variable = menu.oneOf("Which variable", variables);
  menu.change("environmentUnbind", {{"name", name}, {"variable", variable}}, Asks::yes, "Unbound.");
  return Then::stay;
}

void sayDetails(const Menu& menu, const base::Json& environment) {
  for (const auto& [heading, field] :
       {std::pair{"Notes: ", "description"}, {"Target: ", "deploymentTarget"}, {"Folder: ", "rootPath"}}) {
    if (const std::string words = cell(environment, field); !words.empty()) menu.say(heading + words, 2);
  }
  for (const base::Json& binding : items(environment, "bindings")) {
    std::string line = "Variable " + cell(binding, "envVarName") + ": ";
    if (const std::string secret = cell(binding, "secret"); !secret.empty())
      line += secret + ", version " + cell(binding, "version") + (binding.contains("pinVersion") ? " (pinned)" : "");
    if (const std::string problem = cell(binding, "problem"); !problem.empty()) line += " " + problem;
    menu.say(line, 2);
  }
}

Then showEnvironment(const Menu& menu, const std::string& name) {
  menu.screen("Environments > " + name, [&]() -> std::vector<Choice> {
    sayDetails(menu, menu.read("environmentShow", {{"name", name}}));
    return {
        {"Bind a secret to a variable (asks)", [&] { return bind(menu, name); }},
        {"Take a variable out (asks)", [&] { return unbind(menu, name); }},
        {"Set the deployment target (asks)",
         [&] {
           menu.change("environmentTarget", {{"name", name}, {"target", menu.target("none")}}, Asks::yes, "Changed.");
           return Then::stay;
         }},
        {"Change the notes",
         [&] {
           const auto words = menu.optionalText("Notes", "none").value_or("");
           menu.change("environmentEdit", {{"name", name}, {"description", words}}, Asks::no, "Changed.");
           return Then::stay;
         }},
        {"Change the folder",
         [&] {
           const std::string folder = absolute(menu.optionalText("Folder of the project", "none").value_or(""));
           menu.change("environmentEdit", {{"name", name}, {"folder", folder}}, Asks::no, "Changed.");
           return Then::stay;
         }},
        {"Rename (asks)",
         [&] {
           menu.change("environmentRename", {{"name", name}, {"newName", menu.text("Its new name")}}, Asks::yes,
                       "Renamed.");
           return Then::back;
         }},
        {"Delete it; its secrets stay (asks)", [&] {
           menu.change("environmentRemove", {{"name", name}}, Asks::yes, "Deleted. Its secrets stay.");
           return Then::back;
         }}};
  });
  return Then::stay;
}

}  // namespace

void showEnvironments(const Menu& menu) {
  menu.screen("Environments", [&menu] {
    std::vector<Choice> choices;
    const base::Json document = menu.read("environmentList");
    for (const base::Json& environment : items(document, "environments")) {
      const std::string name = cell(environment, "name");
      choices.push_back({summary(environment), [&menu, name] { return showEnvironment(menu, name); }, name});
    }
    if (choices.empty()) menu.say("There are no environments yet.");
    choices.push_back({"Create an environment", [&menu] { return create(menu); }});
    return choices;
  });
}

}  // namespace sorvane::cli
