#include <nlohmann/json.hpp>

#include "cli/menu.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

using Asks = Session::Asks;

struct PolicyWords {
  const char* policy;
  const char* words;
};
constexpr PolicyWords kPolicies[] = {{"perRequest", "ask for every request"},
                                     {"perEnvironment", "ask once for each environment until sorvaned ends"},
                                     {"unlocked", "do not ask while your presence is vouched for"}};

std::string inWords(std::string_view policy) {
  for (const PolicyWords& known : kPolicies) {
    if (policy == known.policy) return known.words;
  }
  return std::string(policy);
}

Then choosePolicy(const Menu& menu) {
  std::vector<std::string> offered;
  for (const PolicyWords& known : kPolicies) offered.emplace_back(known.words);
  const std::string chosen = menu.oneOf("When agents' requests ask you", offered);
  for (const PolicyWords& known : kPolicies) {
    if (chosen == known.words) menu.change("policySet", {{"policy", known.policy}}, Asks::yes, "Changed.");
  }
  return Then::stay;
}

Then setSetting(const Menu& menu, const std::string& name) {
  menu.change("settingsSet", {{"name", name}, {"setting", menu.text("New value of " + name)}}, Asks::no, "Changed.");
  return Then::stay;
}

Then purge(const Menu& menu) {
  const std::string days = menu.text("Purge versions that retired more than so many days ago");
  Session session = menu.session();
  const base::Json report = session.follow(session.manage("gc", {{"days", days}}, Asks::yes));
  menu.say(cell(report, "purgedSwept") + " retired versions were purged.");
  for (const base::Json& missing : items(report, "missingValues")) menu.say(missing.get<std::string>());
  return Then::stay;
}

Then moveStore(const Menu& menu) {
  const base::Json store = menu.read("storeShow");
  menu.say("Values are kept in the " + cell(store, "kind") + " store. " + cell(store, "note"));
  const std::string to = menu.oneOf("Where to move every value", {"embedded", "secret-service"});
  Session session = menu.session();
  session.follow(session.manage("storeMove", {{"to", to}}, Asks::yes));
  menu.say("Every value was moved.");
  return Then::stay;
}

void sayEvent(const Menu& menu, const base::Json& event) {
  std::string line = cell(event, "at") + ": " + cell(event, "actor") + ", " + cell(event, "tool");
  if (const std::string secret = cell(event, "secret"); !secret.empty())
    line += ", " + secret + (event.contains("version") ? " version " + cell(event, "version") : "");
  if (const std::string environment = cell(event, "environment"); !environment.empty()) line += ", " + environment;
  menu.say(line, 2);
}

Then sayEvents(const Menu& menu, Session::Arguments arguments) {
  const base::Json document = menu.read("log", std::move(arguments));
  if (items(document, "events").empty()) menu.say("Nothing was logged.");
  for (const base::Json& event : items(document, "events")) sayEvent(menu, event);
  return Then::stay;
}

Then sayUsage(const Menu& menu) {
  const base::Json document = menu.read("logUsage");
  for (const base::Json& tool : items(document, "tools")) {
    menu.say(cell(tool, "tool") + ": " + cell(tool, "count") + " times", 2);
  }
  for (const base::Json& secret : items(document, "secrets")) {
    menu.say((secret.contains("secret") ? cell(secret, "secret") : cell(secret, "secretId") + " (deleted)") + ": " +
                 cell(secret, "count") + " times, last " + cell(secret, "last"),
             2);
  }
  return Then::stay;
}

}  // namespace

void showLog(const Menu& menu) {
  menu.say("");
  menu.say("The last uses, the newest last:");
  sayEvents(menu, {{"limit", "20"}});
  menu.screen("Log", [&menu]() -> std::vector<Choice> {
    return {{"The last 20 uses",
             [&menu] {
               return sayEvents(menu, {{"limit", "20"}});
             }},
            {"The last 500 uses",
             [&menu] {
               return sayEvents(menu, {{"limit", "500"}});
             }},
            {"Uses of one secret",
             [&menu] {
               return sayEvents(menu, {{"secret", menu.someSecret()}});
             }},
            {"Uses of one environment",
             [&menu] {
               return sayEvents(menu, {{"environment", menu.someEnvironment()}});
             }},
            {"Counts per tool and per secret", [&menu] { return sayUsage(menu); }},
            {"Move lines that cannot be read aside (asks)",
             [&menu] { return menu.change("logRepair", {}, Asks::yes, ""), Then::stay; }}};
  });
}

void showSettings(const Menu& menu) {
  menu.screen("Settings", [&menu] {
    const auto policy = menu.session().manage("policyGet", {}, Asks::no);
    std::vector<Choice> choices{{"Agents", [&menu] { return showConnections(menu), Then::stay; }, "Agents"},
                                {"Unlock", [&menu] { return showUnlock(menu), Then::stay; }, "Unlock"},
                                {"When agents' requests ask you (now: " + inWords(valueOf(policy).view()) + ")",
                                 [&menu] { return choosePolicy(menu); }}};
    const base::Json settings = menu.read("settingsGet");
    for (const auto& [name, value] : settings.items()) {
      choices.push_back({name + " (now: " + value.dump() + ")",
                         [&menu, name = std::string(name)] { return setSetting(menu, name); }, name});
    }
    choices.push_back({"Purge versions that retired long ago (asks)", [&menu] { return purge(menu); }});
    choices.push_back({"The store that keeps the values (moving it asks)", [&menu] { return moveStore(menu); }});
    return choices;
  });
}

}  // namespace sorvane::cli
