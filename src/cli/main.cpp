#include <cstring>
#include <nlohmann/json.hpp>

#include "cli/commands.h"
#include "cli/output.h"

namespace {

using namespace sorvane;
using namespace sorvane::cli;

/// Adds the group that the first word names, or all of them, for help and for a word that none knows. Building every
/// option costs more than most commands.
void addCommands(Commands& commands, CLI::App& app, int count, char** words) {
  struct Group {
    const char* word;
    void (Commands::*add)(CLI::App&);
  };
  constexpr Group kGroups[] = {{"run", &Commands::addRun},
                               {"secret", &Commands::addSecret},
                               {"env", &Commands::addEnvironment},
                               {"export", &Commands::addExport},
                               {"agent", &Commands::addAgent},
                               {"log", &Commands::addLog},
                               {"completion", &Commands::addCompletion}};
  for (const Group& group : kGroups) {
    if (count > 1 && std::strcmp(words[1], group.word) == 0) return (commands.*group.add)(app);
  }
  commands.addApplication(app);
  for (const Group& group : kGroups) (commands.*group.add)(app);
}

void addOptions(CLI::App& app, Options& options) {
  app.add_option("--support-dir", options.supportFolder, "The support folder, when it is not the usual one");
  app.add_option("--requestor", options.requestor, "What the question says that asks");
  app.add_flag("--json", options.json, "One JSON document on standard output, errors too");
  app.add_flag("--no-input", options.noInput, "Never wait for something to be typed here");
  app.set_version_flag("--version", "sorvane " SORVANE_VERSION);
  // Every subcommand takes them as well, wherever they stand.
  app.fallthrough();
}

int fail(const Options& options, const Failure& failure) {
  if (options.json)
    printJson({{"error", {{"code", failure.code()}, {"message", failure.sentence()}}}});
  else
    note(failure.sentence());
  return failure.exitCode();
}

int runProgram(int count, char** words) {
  Options options;
  CLI::App app(
      "sorvane talks to sorvaned, which keeps your credentials. Values are typed or piped in, never arguments.\n"
      "Start sorvaned in a terminal of its own first; it asks there before values leave the vault.",
      "sorvane");
  app.require_subcommand(1);
  Commands commands{options, {}};
  addOptions(app, options);
  addCommands(commands, app, count, words);
  for (CLI::App* const group : app.get_subcommands({})) {
    group->fallthrough();
    for (CLI::App* const command : group->get_subcommands({})) command->fallthrough();
  }
  try {
    app.parse(count, words);
  } catch (const CLI::ParseError& error) {
    // Help and the version come this way too, with 0.
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  Session session(options);
  try {
    return commands.action(session);
  } catch (const Failure& failure) {
    return fail(options, failure);
  } catch (const base::Error& error) {
    return fail(options, Failure(kFailed, "failed", error.sentence()));
  }
}

}  // namespace

int main(int count, char** words) {
  try {
    return runProgram(count, words);
  } catch (const std::exception&) {
    note("sorvane met something that it was not made for. Nothing was shared by it. Try again.");
    return kFailed;
  }
}
