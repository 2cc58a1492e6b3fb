#include <nlohmann/json.hpp>

#include "cli/commands.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

int agents(Session& session) {
  const base::Json document = session.read("agentList");
  if (session.options().json) return printJson(document), 0;
  if (document.contains("sentence")) note(cell(document, "sentence"));
  if (items(document, "agents").empty())
    return printLine("No agent is connected. sorvane agent add LABEL connects one."), 0;
  std::vector<std::vector<std::string>> rows;
  for (const base::Json& grant : items(document, "agents")) {
    const bool scoped = grant.contains("environment");
    const std::string scope = !scoped                              ? "every environment"
                              : cell(grant, "environment").empty() ? "none"
                                                                   : cell(grant, "environment");
    rows.push_back({cell(grant, "label"), scope, cell(grant, "allowReveal"), cell(grant, "autoApprove")});
  }
  printTable({"LABEL", "ENVIRONMENT", "RAW VALUES", "CLIENT APPROVES BY ITSELF"}, rows);
  return 0;
}

int showLog(Session& session, const Session::Arguments& arguments) {
  const base::Json document = session.read("log", arguments);
  if (session.options().json) return printJson(document), 0;
  std::vector<std::vector<std::string>> rows;
  for (const base::Json& event : items(document, "events")) {
    rows.push_back({cell(event, "at"), cell(event, "actor"), cell(event, "tool"),
                    cell(event, "secret") + (event.contains("version") ? " v" + cell(event, "version") : ""),
                    cell(event, "environment")});
  }
  printTable({"AT", "WHO", "WHAT", "SECRET", "ENVIRONMENT"}, rows);
  return 0;
}

int showUsage(Session& session) {
  const base::Json document = session.read("logUsage");
  if (session.options().json) return printJson(document), 0;
  std::vector<std::vector<std::string>> tools, secrets;
  for (const base::Json& tool : items(document, "tools")) tools.push_back({cell(tool, "tool"), cell(tool, "count")});
  for (const base::Json& secret : items(document, "secrets")) {
    secrets.push_back({secret.contains("secret") ? cell(secret, "secret") : cell(secret, "secretId") + " (deleted)",
                       cell(secret, "count"), cell(secret, "last")});
  }
  printTable({"WHAT", "TIMES"}, tools);
  printLine("");
  printTable({"SECRET", "TIMES", "LAST"}, secrets);
  return 0;
}

/// Sends an action and says that it is done, or what came back.
Action simple(std::string name, std::shared_ptr<Given> given, Session::Asks asks, std::string done) {
  return [=](Session& session) {
    const auto response = session.manage(name, given->arguments, asks);
    const std::string value = response.value ? std::string(response.value->view()) : "";
    if (session.options().json) return printJson({{"ok", true}, {"value", value}}), 0;
    note(done.empty() ? value : done);
    return 0;
  };
}

int collect(Session& session, const Session::Arguments& arguments) {
  const auto response = session.manage("gc", arguments, Session::Asks::yes);
  const base::Json report = session.follow(response);
  if (session.options().json) return printJson(report), 0;
  note(cell(report, "purgedSwept") + " retired versions were purged.");
  for (const base::Json& missing : items(report, "missingValues")) note(missing.get<std::string>());
  return 0;
}

int moveStore(Session& session, const Session::Arguments& arguments) {
  const auto response = session.manage("storeMove", arguments, Session::Asks::yes);
  const base::Json report = session.follow(response);
  if (session.options().json) return printJson(report.is_null() ? base::Json{{"ok", true}} : report), 0;
  note("Every value was moved.");
  return 0;
}

int showStore(Session& session) {
  const base::Json document = session.read("storeShow");
  if (session.options().json) return printJson(document), 0;
  printLine("Values are kept in the " + cell(document, "kind") + " store (" + cell(document, "items") + " items). " +
            cell(document, "note"));
  return 0;
}

}  // namespace

void Commands::addApplication(CLI::App& app) {
  auto given = std::make_shared<Given>();
  CLI::App& policy =
      *app.add_subcommand("policy", "When agents' requests ask the owner: shows or sets it (setting asks)");
  auto word = std::make_shared<std::string>();
  policy.add_option("policy", *word, "per-request, per-environment or unlocked")
      ->check(CLI::IsMember({"per-request", "per-environment", "unlocked"}));
  const auto who = std::make_shared<std::string>();
  CLI::App& approver = *policy.add_subcommand("approver", "Whose yes counts (asks); a no counts from anywhere");
  approver.add_option("approver", *who, "terminal, system, phone or any")
      ->required()
      ->check(CLI::IsMember({"terminal", "system", "phone", "any"}));
  policy.callback([this, word, who] {
    action = [word, who](Session& session) {
      if (!who->empty()) {
        const auto response = session.manage("policySet", {{"approver", *who}}, Session::Asks::yes);
        for (const std::string& warning : response.warnings.value_or(std::vector<std::string>{})) note(warning);
        session.options().json ? printJson({{"ok", true}}) : note("Changed.");
        return 0;
      }
      if (word->empty()) {
        const auto response = session.manage("policyGet", {}, Session::Asks::no);
        const std::string present(valueOf(response).view());
        session.options().json ? printJson({{"policy", present}}) : printLine(present);
        return 0;
      }
      const std::string name = *word == "unlocked"      ? "unlocked"
                               : *word == "per-request" ? "perRequest"
                                                        : "perEnvironment";
      session.manage("policySet", {{"policy", name}}, Session::Asks::yes);
      session.options().json ? printJson({{"ok", true}}) : note("Changed.");
      return 0;
    };
  });

  CLI::App& settings = *app.add_subcommand("settings", "See and change settings");
  settings.require_subcommand(1);
  CLI::App& get = *settings.add_subcommand("get", "All settings, or one");
  given->text(get, "name", "name", "Name of the setting; all when absent");
  get.callback([this, given] {
    action = [given](Session& session) {
      const base::Json document = session.read("settingsGet", given->arguments);
      if (session.options().json) return printJson(document), 0;
      for (const auto& [name, value] : document.items()) printLine(name + " = " + value.dump());
      return 0;
    };
  });
  given = std::make_shared<Given>();
  CLI::App& set = *settings.add_subcommand("set", "Change one, such as rotationGraceDays 14");
  given->text(set, "name", "name", "Name of the setting")->required();
  given->text(set, "value", "setting", "Its new value")->required();
  set.callback([this, given] { action = simple("settingsSet", given, Session::Asks::no, "Changed."); });

  given = std::make_shared<Given>();
  CLI::App& gc = *app.add_subcommand("gc", "Purge versions that retired more than so many days ago (asks)");
  given->text(gc, "--days", "days", "The grace period in days")->required();
  gc.callback([this, given] { action = [given](Session& session) { return collect(session, given->arguments); }; });

  CLI::App& store = *app.add_subcommand("store", "The credential store that keeps the values");
  store.require_subcommand(1);
  store.add_subcommand("show", "Which one it is")->callback([this] { action = showStore; });
  given = std::make_shared<Given>();
  CLI::App& move = *store.add_subcommand("move", "Move every value to another store (asks)");
  given->text(move, "to", "to", "embedded or secret-service")
      ->required()
      ->check(CLI::IsMember({"embedded", "secret-service"}));
  move.callback([this, given] { action = [given](Session& session) { return moveStore(session, given->arguments); }; });
}

void Commands::addLog(CLI::App& app) {
  const auto given = std::make_shared<Given>();
  const auto usage = std::make_shared<bool>(false);
  CLI::App& log = *app.add_subcommand("log", "Who used what, newest last");
  given->text(log, "--limit", "limit", "At most so many entries; 100 when absent");
  given->text(log, "--secret", "secret", "Of this secret only");
  given->text(log, "--environment", "environment", "Of this environment only");
  log.add_flag("--usage", *usage, "Counts per tool and per secret");
  CLI::App& repair = *log.add_subcommand("repair", "Move lines that cannot be read aside (asks)");
  repair.callback([this] { action = simple("logRepair", std::make_shared<Given>(), Session::Asks::yes, ""); });
  log.callback([this, given, usage, &repair] {
    if (repair.parsed()) return;
    action = [given, usage](Session& session) {
      return *usage ? showUsage(session) : showLog(session, given->arguments);
    };
  });
}

void Commands::addAgent(CLI::App& app) {
  CLI::App& group = *app.add_subcommand("agent", "Connect agents and say what they may use");
  group.require_subcommand(1);
  addClients(group);
  group.add_subcommand("list", "Connected agents")->callback([this] { action = agents; });

  auto given = std::make_shared<Given>();
  CLI::App& add = *group.add_subcommand("add", "Connect an agent; its token is printed once (asks)");
  given->text(add, "label", "label", "How it is called in questions and in the log")->required();
  given->text(add, "--env", "environment", "The one environment it may use");
  given->flag(add, "--allow-reveal", "allowReveal", "Let it read raw values, each after a question");
  add.callback([this, given] {
    action = [given](Session& session) {
      const auto response = session.manage("agentAdd", given->arguments, Session::Asks::yes);
      if (session.options().json) return printJson({{"token", std::string(valueOf(response).view())}}), 0;
      note("This is the agent's token. It is shown once and kept nowhere; give it to the agent as SORVANE_MCP_TOKEN.");
      printValue(valueOf(response));
      return 0;
    };
  });

  given = std::make_shared<Given>();
  CLI::App& edit = *group.add_subcommand("edit", "Change a connection (asks)");
  given->text(edit, "label", "label", "Its label")->required();
  given->text(edit, "--label", "newLabel", "A new label");
  given->text(edit, "--env", "environment", "The one environment it may use");
  edit.add_flag_callback(
      "--any-env", [given] { given->arguments["environment"] = ""; }, "Every environment");
  given->onOff(edit, "--allow-reveal", "allowReveal", "on or off");
  edit.callback([this, given] { action = simple("agentEdit", given, Session::Asks::yes, "Changed."); });

  given = std::make_shared<Given>();
  CLI::App& remove = *group.add_subcommand("rm", "Disconnect an agent (asks)");
  given->text(remove, "label", "label", "Its label")->required();
  remove.callback([this, given] { action = simple("agentRemove", given, Session::Asks::yes, "Disconnected."); });

  group.add_subcommand("confirm", "Let connections of an earlier version count again (asks)")->callback([this] {
    action = [](Session& session) {
      session.manage("agentConfirm", {}, Session::Asks::yes);
      return agents(session);
    };
  });
}

}  // namespace sorvane::cli
