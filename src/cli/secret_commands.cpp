#include <unistd.h>

#include <nlohmann/json.hpp>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/typed_value.h"

namespace sorvane::cli {
namespace {

struct ValueGiven : Given {
  bool keepNewline = false;
};

void addVersionFields(CLI::App& command, Given& given) {
  given.text(command, "--label", "label", "A label of this version (\"\" clears it)");
  given.text(command, "--expires", "expiresAt",
             "When this version expires, such as 2026-12-31T00:00:00Z (\"\" clears it)");
}

void addSecretFields(CLI::App& command, Given& given) {
  given.text(command, "--description", "description", "What it is for");
  given.list(command, "--tag", "tags", "A tag; may be repeated (one empty text clears them)");
  given.text(command, "--icon", "icon", "Name of a symbol (\"\" clears it)");
  given.onOff(command, "--favorite", "favorite", "on or off");
}

void addValue(CLI::App& command, const std::shared_ptr<ValueGiven>& given) {
  command.add_flag("--keep-newline", given->keepNewline,
                   "Keep the line feed at the end of a value that is piped in; one is dropped otherwise");
  given->list(command, "--target", "targets",
              "Where it may be delivered: development, staging, production; may be repeated");
}

int list(Session& session) {
  const base::Json document = session.read("secretList");
  if (session.options().json) return printJson(document), 0;
  if (items(document, "secrets").empty())
    return printLine("There are no secrets yet. sorvane secret add NAME adds one."), 0;
  std::vector<std::vector<std::string>> rows;
  for (const base::Json& secret : items(document, "secrets")) {
    rows.push_back({(secret.value("isFavorite", false) ? "* " : "  ") + cell(secret, "name"),
                    "v" + cell(secret, "currentVersion"), cell(secret, "badge"),
                    cell(secret, "allowedDeploymentTargets"), cell(secret, "environments")});
  }
  printTable({"  NAME", "VERSION", "ROTATION", "LIMITED TO", "ENVIRONMENTS"}, rows);
  return 0;
}

void printVersions(const base::Json& secret) {
  std::vector<std::vector<std::string>> rows;
  for (const base::Json& version : items(secret, "versions")) {
    const bool current = cell(version, "version") == cell(secret, "currentVersion");
    rows.push_back({"v" + cell(version, "version"), current ? "current" : cell(version, "status"),
                    cell(version, "createdAt"), cell(version, "expiresAt"), cell(version, "label"),
                    cell(version, "allowedDeploymentTargets")});
  }
  printTable({"VERSION", "STATUS", "CREATED", "EXPIRES", "LABEL", "LIMITED TO"}, rows);
}

int show(Session& session, const Session::Arguments& arguments, bool onlyVersions) {
  const base::Json secret = session.read("secretShow", arguments);
  if (session.options().json) return printJson(onlyVersions ? items(secret, "versions") : secret), 0;
  if (!onlyVersions) {
    std::vector<std::vector<std::string>> rows;
    for (const auto& [heading, field] : {std::pair{"Name", "name"},
                                         {"Description", "description"},
                                         {"Tags", "tags"},
                                         {"Icon", "icon"},
                                         {"Favourite", "isFavorite"},
                                         {"Rotation", "badge"},
                                         {"Created", "createdAt"},
                                         {"Changed", "updatedAt"},
                                         {"Id", "id"}}) {
      if (const std::string text = cell(secret, field); !text.empty()) rows.push_back({heading, text});
    }
    for (const base::Json& use : items(secret, "environments")) {
      rows.push_back(
          {"Used by", cell(use, "name") + " as " + cell(use, "variable") +
                          (use.contains("pinVersion") ? " (pinned to v" + cell(use, "pinVersion") + ")" : "")});
    }
    printTable({"FIELD", "VALUE"}, rows);
    printLine("");
  }
  printVersions(secret);
  return 0;
}

/// A subcommand that sends one action with the arguments given.
CLI::App& plain(Commands& commands, CLI::App& group, const std::string& name, const std::string& help,
                const std::string& action, Session::Asks asks, const std::shared_ptr<Given>& given,
                const std::string& done) {
  CLI::App& command = *group.add_subcommand(name, help);
  command.callback([&commands, given, action, asks, done] {
    commands.action = [given, action, asks, done](Session& session) {
      const agent::AgentResponse response = session.manage(action, given->arguments, asks);
      const std::string value = response.value ? std::string(response.value->view()) : "";
      if (session.options().json) return printJson({{"ok", true}, {"value", value}}), 0;
      note(value.empty() || done.ends_with('.') ? done : done + value + ".");
      return 0;
    };
  });
  return command;
}

void addValueCommand(Commands& commands, CLI::App& group, bool rotate) {
  const auto given = std::make_shared<ValueGiven>();
  CLI::App& command = *group.add_subcommand(
      rotate ? "rotate" : "add",
      rotate ? "Store a new version; the earlier one retires and task sessions end (asks)"
             : "Store a new secret; the value is typed without echo or piped in, never an argument");
  given->text(command, "name", "name", "Name of the secret")->required();
  if (!rotate) addSecretFields(command, *given);
  addVersionFields(command, *given);
  addValue(command, given);
  command.callback([&commands, given, rotate] {
    commands.action = [given, rotate](Session& session) {
      auto value = readValue(session.options(), "Value of " + given->arguments["name"], given->keepNewline);
      const auto response = session.manage(rotate ? "secretRotate" : "secretAdd", given->arguments,
                                           rotate ? Session::Asks::yes : Session::Asks::no, std::move(value));
      const std::string answer(valueOf(response).view());
      if (session.options().json) return printJson({{"ok", true}, {rotate ? "version" : "id", answer}}), 0;
      note(rotate ? "Stored as version " + answer + "." : "Stored " + given->arguments["name"] + ".");
      return 0;
    };
  });
}

void addReveal(Commands& commands, CLI::App& group) {
  const auto given = std::make_shared<Given>();
  const auto force = std::make_shared<bool>(false);
  CLI::App& command = *group.add_subcommand("reveal", "Print a value (asks)");
  given->text(command, "name", "name", "Name of the secret")->required();
  given->text(command, "--version", "version", "Number of the version; the current one when absent");
  command.add_flag("--force", *force, "Print it also where standard output is no terminal; --json does, too");
  command.callback([&commands, given, force] {
    commands.action = [given, force](Session& session) {
      if (::isatty(STDOUT_FILENO) == 0 && !*force && !session.options().json) {
        throw Failure(kUsage, "not_a_terminal",
                      "Standard output is no terminal, so the value was not asked for. Use --force to write it there.");
      }
      const auto response = session.manage("secretReveal", given->arguments, Session::Asks::yes);
      if (session.options().json) return printJson({{"value", std::string(valueOf(response).view())}}), 0;
      printValue(valueOf(response));
      return 0;
    };
  });
}

}  // namespace

void Commands::addSecret(CLI::App& app) {
  CLI::App& group = *app.add_subcommand("secret", "Add, see and change secrets");
  group.require_subcommand(1);
  const auto named = [](CLI::App& command, Given& given) {
    given.text(command, "name", "name", "Name of the secret")->required();
  };
  const auto versioned = [](CLI::App& command, Given& given) {
    return given.text(command, "--version", "version", "Number of the version; the current one when absent");
  };
  group.add_subcommand("list", "Names, versions and what is due for rotation")->callback([this] { action = list; });
  addValueCommand(*this, group, false);
  addValueCommand(*this, group, true);
  addReveal(*this, group);
  for (const bool onlyVersions : {false, true}) {
    const auto given = std::make_shared<Given>();
    CLI::App& command = *group.add_subcommand(
        onlyVersions ? "versions" : "show", onlyVersions ? "History of a secret" : "All about a secret but its value");
    named(command, *given);
    command.callback([this, given, onlyVersions] {
      action = [given, onlyVersions](Session& session) { return show(session, given->arguments, onlyVersions); };
    });
  }
  using Asks = Session::Asks;
  auto given = std::make_shared<Given>();
  CLI::App* command =
      &plain(*this, group, "edit", "Change what is written about a secret", "secretEdit", Asks::no, given, "Changed.");
  named(*command, *given);
  addSecretFields(*command, *given);
  addVersionFields(*command, *given);
  versioned(*command, *given);

  given = std::make_shared<Given>();
  command = &plain(*this, group, "copy", "Put a value on the clipboard for 45 seconds (asks)", "secretCopy", Asks::yes,
                   given, "");
  named(*command, *given);
  versioned(*command, *given);

  given = std::make_shared<Given>();
  command =
      &plain(*this, group, "rename", "Give a secret another name (asks)", "secretRename", Asks::yes, given, "Renamed.");
  named(*command, *given);
  given->text(*command, "new-name", "newName", "The new name")->required();
  given->flag(*command, "--rebind", "rebind", "Rename variables that bear the old name, too");

  given = std::make_shared<Given>();
  command = &plain(*this, group, "rm", "Delete a secret with all its versions (asks)", "secretRemove", Asks::yes, given,
                   "Deleted.");
  named(*command, *given);

  given = std::make_shared<Given>();
  command = &plain(*this, group, "restore", "Make an earlier version's value current again, as a new version (asks)",
                   "secretRestore", Asks::yes, given, "Restored as version ");
  named(*command, *given);
  given->text(*command, "version", "version", "Number of the earlier version")->required();

  given = std::make_shared<Given>();
  command = &plain(*this, group, "limit", "Limit where a version may be delivered (asks)", "secretLimit", Asks::yes,
                   given, "Changed.");
  named(*command, *given);
  given->list(*command, "target", "targets", "development, staging, production; one empty text lifts the limit")
      ->required();
  versioned(*command, *given);
}

}  // namespace sorvane::cli
