#include <filesystem>
#include <nlohmann/json.hpp>

#include "cli/menu.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

using Asks = Session::Asks;

std::string scopeOf(const base::Json& grant) {
  if (!grant.contains("environment")) return "every environment";
  const std::string environment = cell(grant, "environment");
  return environment.empty() ? "no environment" : environment;
}

std::string summary(const base::Json& grant) {
  return cell(grant, "label") + ": " + scopeOf(grant) + ", raw values " +
         (grant.value("allowReveal", false) ? "allowed" : "not allowed") +
         (grant.value("autoApprove", false) ? ", runs its tools unasked" : "");
}

std::string stateInWords(const base::Json& client) {
  const std::string state = cell(client, "state");
  if (state == "connected") return "connected";
  if (state == "entryChanged") return "its entry was changed since; repair or disconnect it";
  if (state == "entryGone") return "its entry is gone; repair or disconnect it";
  if (state == "unreadable") return "its configuration cannot be read";
  return client.value("found", false) ? "not connected" : "not found on this computer";
}

Then add(const Menu& menu) {
  Session::Arguments arguments{{"label", menu.text("How the agent is called in questions and in the log")}};
  if (const auto environment = menu.environmentOrAll()) arguments["environment"] = *environment;
  if (menu.yes("May it read raw values, each after a question?")) arguments["allowReveal"] = "true";
  const auto response = menu.session().manage("agentAdd", std::move(arguments), Asks::yes);
  menu.say("This is the agent's token. It is shown once and kept nowhere; give it to the agent as SORVANE_MCP_TOKEN.");
  printValue(valueOf(response));
  return Then::stay;
}

Then showGrant(const Menu& menu, const std::string& label, bool reveals) {
  menu.screen("Agent connections > " + label, [&]() -> std::vector<Choice> {
    return {{"Choose which environment it may use (asks)",
             [&] {
               menu.change("agentEdit", {{"label", label}, {"environment", menu.environmentOrAll().value_or("")}},
                           Asks::yes, "Changed.");
               return Then::back;
             }},
            {reveals ? "Raw values: take them away (asks)" : "Raw values: allow them, each after a question (asks)",
             [&] {
               menu.change("agentEdit", {{"label", label}, {"allowReveal", reveals ? "false" : "true"}}, Asks::yes,
                           "Changed.");
               return Then::back;
             }},
            {"Rename (asks)",
             [&] {
               menu.change("agentEdit", {{"label", label}, {"newLabel", menu.text("Its new label")}}, Asks::yes,
                           "Changed.");
               return Then::back;
             }},
            {"Remove the connection (asks)", [&] {
               menu.change("agentRemove", {{"label", label}}, Asks::yes, "Disconnected.");
               return Then::back;
             }}};
  });
  return Then::stay;
}

/// A client's entry, in its own file or in a project's.
struct ClientPlace {
  std::string client, project;

  Session::Arguments arguments() const {
    Session::Arguments arguments{{"client", client}};
    if (!project.empty()) arguments["project"] = project;
    return arguments;
  }
};

Then connect(const Menu& menu, ClientPlace place) {
  if (place.project.empty() && menu.yes("Only for the project in " + std::filesystem::current_path().string() + "?"))
    place.project = std::filesystem::current_path().string();
  Session::Arguments arguments = place.arguments();
  if (const auto environment = menu.environmentOrAll()) arguments["environment"] = *environment;
  if (menu.yes("May it read raw values, each after a question?")) arguments["allowReveal"] = "true";
  menu.change("clientConnect", std::move(arguments), Asks::yes, "");
  return Then::back;
}

Then showClient(const Menu& menu, const base::Json& client) {
  const std::string name = cell(client, "name");
  const ClientPlace place{cell(client, "client"), cell(client, "project")};
  const bool connected = client.contains("label");
  menu.screen("Agent connections > Clients > " + name, [&]() -> std::vector<Choice> {
    menu.say(name + " is " + stateInWords(client) + ".", 2);
    for (const auto& [heading, field] :
         {std::pair{"Configuration: ", "file"}, {"Last request: ", "lastRequest"}, {"", "problem"}}) {
      if (const std::string words = cell(client, field); !words.empty()) menu.say(heading + words, 2);
    }
    if (client.value("autoApprove", false)) menu.say("It runs its tools without asking you first.", 2);
    if (!connected) return {{"Connect it (asks)", [&] { return connect(menu, place); }}};
    return {{"Repair: write its entry anew (asks)",
             [&] { return menu.change("clientRepair", place.arguments(), Asks::yes, ""), Then::back; }},
            {"Disconnect: take its entry back (asks)",
             [&] { return menu.change("clientDisconnect", place.arguments(), Asks::yes, ""), Then::back; }}};
  });
  return Then::stay;
}

Then showClients(const Menu& menu) {
  menu.screen("Agent connections > Clients", [&menu] {
    std::vector<Choice> choices;
    const base::Json document = menu.read("clientStatus");
    for (const base::Json& client : items(document, "clients")) {
      const std::string project = cell(client, "project");
      const std::string name = cell(client, "name") + (project.empty() ? "" : " in " + project);
      choices.push_back({name + ": " + stateInWords(client), [&menu, client] { return showClient(menu, client); },
                         cell(client, "client")});
    }
    return choices;
  });
  return Then::stay;
}

}  // namespace

void showConnections(const Menu& menu) {
  menu.screen("Agent connections", [&menu] {
    std::vector<Choice> choices;
    const base::Json document = menu.read("agentList");
    for (const base::Json& grant : items(document, "agents")) {
      const std::string label = cell(grant, "label");
      const bool reveals = grant.value("allowReveal", false);
      choices.push_back({summary(grant), [&menu, label, reveals] { return showGrant(menu, label, reveals); }, label});
    }
    if (choices.empty()) menu.say("No agent is connected.");
    if (const std::string sentence = cell(document, "sentence"); !sentence.empty()) menu.say(sentence);
    choices.push_back({"Clients: connect Claude Code, Codex, Cursor and others, or see how they are",
                       [&menu] { return showClients(menu); }, "Clients"});
    choices.push_back({"Add a connection by hand, with a token (asks)", [&menu] { return add(menu); }});
    if (!document.value("trusted", true)) {
      choices.push_back({"Let connections of an earlier version count again (asks)", [&menu] {
                           menu.session().manage("agentConfirm", {}, Asks::yes);
                           menu.say("They count again.");
                           return Then::stay;
                         }});
    }
    choices.push_back({"Protected keys", [&menu] {
                         menu.say("This version protects no keys, so there is nothing to review here.");
                         return Then::stay;
                       }});
    return choices;
  });
}

}  // namespace sorvane::cli
