#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

#include "base/system.h"
#include "cli/command_table.h"
#include "cli/menu.h"
#include "cli/output.h"

namespace {

using namespace sorvane;
using namespace sorvane::cli;

int fail(const Options& options, const Failure& failure) {
  if (options.json)
    printJson({{"error", {{"code", failure.code()}, {"message", failure.sentence()}}}});
  else
    note(failure.sentence());
  return failure.exitCode();
}

/// A command line that cannot be parsed. Help and the version come this way too, with 0.
int refuse(const CLI::App& app, const CLI::ParseError& error, int count, char** words) {
  char** const end = std::find_if(words, words + count, [](const char* word) { return std::strcmp(word, "--") == 0; });
  // The parser gave up before it set any option.
  const bool json = std::any_of(words, end, [](const char* word) { return std::strcmp(word, "--json") == 0; });
  if (!json || error.get_exit_code() == 0) return app.exit(error) == 0 ? 0 : kUsage;
  printJson({{"error", {{"code", "usage"}, {"message", error.what()}}}});
  return kUsage;
}

int runProgram(int count, char** words) {
  Options options;
  CLI::App app(
      "sorvane talks to sorvaned, which keeps your credentials. Values are typed or piped in, never arguments.\n"
      "Start sorvaned in a terminal of its own first; it asks there before values leave the vault.\n"
      "Without a command, a terminal shows the menu.",
      "sorvane");
  app.footer(
      "First steps:\n"
      "  sorvane passphrase set\n"
      "  sorvane secret add STRIPE_KEY\n"
      "  sorvane env create Development --folder ~/src/shop\n"
      "  sorvane env bind Development STRIPE_KEY STRIPE_KEY\n"
      "  sorvane run Development -- npm test\n"
      "  sorvane import .\n"
      "  sorvane agent connect claude-code --env Development\n\n"
      "Exit codes: the command's own from run; 2 wrong command line, 69 sorvaned is not running, 75 locked or busy,\n"
      "77 denied, 78 wrong configuration, 1 anything else.");
  // A person at a terminal who names no command gets the menu; a program gets the usage.
  const bool person = ::isatty(STDIN_FILENO) != 0 && ::isatty(STDOUT_FILENO) != 0;
  app.require_subcommand(person ? 0 : 1, 1);
  Commands commands{options, {}};
  addOptions(app, options);
  addCommands(commands, app, count, words);
  for (CLI::App* const group : app.get_subcommands({})) {
    group->fallthrough();
    for (CLI::App* const command : group->get_subcommands({})) command->fallthrough();
  }
  try {
    app.parse(count, words);
    if (!commands.action && (options.json || options.noInput)) throw CLI::RequiredError("A subcommand");
    if (!commands.action) commands.action = [&options](Session&) { return runMenu(options); };
  } catch (const CLI::ParseError& error) {
    return refuse(app, error, count, words);
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
  sorvane::base::hardenProcess();
  try {
    return runProgram(count, words);
  } catch (const std::exception&) {
    note("sorvane met something that it was not made for. Nothing was shared by it. Try again.");
    return kFailed;
  }
}
