#include <nlohmann/json.hpp>

#include "cli/menu.h"
#include "cli/output.h"
#include "cli/typed_value.h"

namespace sorvane::cli {
namespace {

using Asks = Session::Asks;

std::string summary(const base::Json& secret) {
  std::string text = cell(secret, "name") + ", version " + cell(secret, "currentVersion");
  if (const std::string badge = cell(secret, "badge"); !badge.empty()) text += ", " + badge;
  if (const std::string limit = cell(secret, "allowedDeploymentTargets"); !limit.empty()) text += ", only for " + limit;
  if (const std::string uses = cell(secret, "environments"); !uses.empty()) text += ", in " + uses;
  return text;
}

Then add(const Menu& menu) {
  Session::Arguments arguments{{"name", menu.text("Name of the secret, such as STRIPE_KEY")}};
  if (const auto words = menu.optionalText("What it is for", "nothing")) arguments["description"] = *words;
  base::SecretText value = readValue(menu.options(), "Its value", false);
  const std::string done = "Stored " + arguments["name"] + ".";
  menu.change("secretAdd", std::move(arguments), Asks::no, done, std::move(value));
  return Then::stay;
}

Then rotate(const Menu& menu, const std::string& name) {
  menu.say("The earlier version retires, and task sessions that use it end.");
  base::SecretText value = readValue(menu.options(), "New value", false);
  const auto response = menu.session().manage("secretRotate", {{"name", name}}, Asks::yes, std::move(value));
  menu.say("Stored as version " + std::string(valueOf(response).view()) + ".");
  return Then::stay;
}

Then reveal(const Menu& menu, const std::string& name) {
  const auto response = menu.session().manage("secretReveal", {{"name", name}}, Asks::yes);
  printValue(valueOf(response));
  return Then::stay;
}

Then rename(const Menu& menu, const std::string& name) {
  Session::Arguments arguments{{"name", name}, {"newName", menu.text("Its new name")}};
  arguments["rebind"] = menu.yes("Rename variables that bear the old name, too?") ? "true" : "false";
  menu.change("secretRename", std::move(arguments), Asks::yes, "Renamed.");
  return Then::back;
}

Then limit(const Menu& menu, const std::string& name) {
  const std::string only = menu.target("no limit");
  menu.change("secretLimit",
              {{"name", name}, {"targets", only.empty() ? "[]" : listArgument(std::vector<std::string>{only})}},
              Asks::yes, "Changed.");
  return Then::stay;
}

Then restore(const Menu& menu, const std::string& name) {
  const std::string version = menu.text("Number of the earlier version");
  const auto response = menu.session().manage("secretRestore", {{"name", name}, {"version", version}}, Asks::yes);
  menu.say("Restored as version " + std::string(valueOf(response).view()) + ".");
  return Then::stay;
}

void sayDetails(const Menu& menu, const base::Json& secret) {
  for (const auto& [heading, field] :
       {std::pair{"For: ", "description"}, {"Tags: ", "tags"}, {"Rotation: ", "badge"}, {"Changed: ", "updatedAt"}}) {
    if (const std::string words = cell(secret, field); !words.empty()) menu.say(heading + words, 2);
  }
  for (const base::Json& use : items(secret, "environments"))
    menu.say("Used by " + cell(use, "name") + " as " + cell(use, "variable"), 2);
  for (const base::Json& version : items(secret, "versions")) {
    const bool current = cell(version, "version") == cell(secret, "currentVersion");
    std::string line = "Version " + cell(version, "version") + ": " + (current ? "current" : cell(version, "status")) +
                       ", " + cell(version, "createdAt");
    if (const std::string ends = cell(version, "expiresAt"); !ends.empty()) line += ", expires " + ends;
    if (const std::string label = cell(version, "label"); !label.empty()) line += ", " + label;
    if (const std::string only = cell(version, "allowedDeploymentTargets"); !only.empty()) line += ", only for " + only;
    menu.say(line, 2);
  }
}

Then showSecret(const Menu& menu, const std::string& name) {
  menu.screen("Secrets > " + name, [&]() -> std::vector<Choice> {
    sayDetails(menu, menu.read("secretShow", {{"name", name}}));
    return {{"Copy the value to the clipboard for 45 seconds (asks)",
             [&] {
               return menu.change("secretCopy", {{"name", name}}, Asks::yes, ""), Then::stay;
             }},
            {"Show the value here (asks)", [&] { return reveal(menu, name); }},
            {"Rotate: store a new value (asks)", [&] { return rotate(menu, name); }},
            {"Rename (asks)", [&] { return rename(menu, name); }},
            {"Say what it is for",
             [&] {
               const auto words = menu.optionalText("What it is for", "nothing").value_or("");
               menu.change("secretEdit", {{"name", name}, {"description", words}}, Asks::no, "Changed.");
               return Then::stay;
             }},
            {"Limit where it may be delivered (asks)", [&] { return limit(menu, name); }},
            {"Restore an earlier version (asks)", [&] { return restore(menu, name); }},
            {"Remove it with all its versions (asks)", [&] {
               menu.change("secretRemove", {{"name", name}}, Asks::yes, "Deleted.");
               return Then::back;
             }}};
  });
  return Then::stay;
}

}  // namespace

void showSecrets(const Menu& menu) {
  menu.screen("Secrets", [&menu] {
    std::vector<Choice> choices;
    const base::Json document = menu.read("secretList");
    for (const base::Json& secret : items(document, "secrets")) {
      const std::string name = cell(secret, "name");
      choices.push_back({summary(secret), [&menu, name] { return showSecret(menu, name); }, name});
    }
    if (choices.empty()) menu.say("There are no secrets yet.");
    choices.push_back({"Add a secret", [&menu] { return add(menu); }});
    return choices;
  });
}

}  // namespace sorvane::cli
