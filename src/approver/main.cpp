#include <CLI/CLI.hpp>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>

#include "approver/commands.h"
#include "approver/key_file.h"
#include "approver/pair_link.h"
#include "approver/passphrase.h"
#include "approver/terminal.h"
#include "base/system.h"
#include "crypto/key.h"
#include "platform/adapters_approver.h"

namespace {

using namespace sorvane;
using namespace sorvane::approver;

using Action = std::function<int(const Options&)>;

/// Help and the version come as a ParseError too, with 0.
void addCommands(CLI::App& app, Options& options, Action& action) {
  const auto browser = [](auto function) {
    return [function](const Options& chosen) { return function(chosen, platform::makeBrowser().get()); };
  };
  CLI::App* const pair = app.add_subcommand("pair", "Pair this device with the computer that shows a link");
  pair->add_option("LINK", options.link, "What sorvane phone pair shows there; - reads it from standard input")
      ->required();
  pair->add_option("--name", options.deviceName, "Name of this device, as the computer lists it")->type_name("NAME");
  pair->add_flag("--once", options.once, "End when it is paired");
  pair->callback([&action, browser] { action = browser(pairDevice); });

  CLI::App* const wait = app.add_subcommand("wait", "Wait for questions and answer them (the same as no command)");
  wait->callback([&action, browser] { action = browser(waitForQuestions); });

  CLI::App* const status = app.add_subcommand("status", "Show which computer this device is paired with");
  status->callback([&action] { action = showStatus; });

  CLI::App* const forget = app.add_subcommand("forget", "Remove this device's keys");
  forget->add_flag("--tell", options.tell, "Tell the computer, which asks for the passphrase");
  forget->callback([&action, browser] { action = browser(forgetPairing); });

  for (CLI::App* const command : app.get_subcommands({})) command->fallthrough();
  action = browser(waitForQuestions);
}

int runProgram(int count, char** words) {
  CLI::App app(
      "sorvane-approver answers a computer's questions from here: it shows who asks for what, and you say y or n.\n"
      "Pair it first; from then on it finds the computer in the local network.",
      "sorvane-approver");
  Options options;
  options.keys = KeyFile::usualPath();
  Action action;
  app.add_option("--keys", options.keys, "File that holds this device's keys, sealed with your passphrase")
      ->type_name("FILE");
  app.add_option("--address", options.address, "Where the computer listens, in place of where it was last seen")
      ->type_name("HOST:PORT");
  app.add_option("--passphrase-fd", options.passphraseFd, "Read the passphrase from this open file, one line")
      ->type_name("N");
  app.require_subcommand(0, 1);
  app.set_version_flag("--version", std::string("sorvane-approver ") + SORVANE_VERSION);
  app.footer(
      "First steps:\n"
      "  sorvane phone pair                  on the computer\n"
      "  sorvane-approver pair 'sorvane://pair?…'\n"
      "  sorvane-approver\n\n"
      "Exit codes: 2 wrong command line, 69 the computer was not reached, 77 refused or wrong passphrase, 78 not "
      "paired\n"
      "or the keys cannot be used, 130 ended with Control-C, 1 anything else.");
  addCommands(app, options, action);
  try {
    app.parse(count, words);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  if (options.keys.empty()) {
    std::cerr << "There is no home folder to keep the keys in. Choose a file with --keys.\n";
    return kConfiguration;
  }
  options.keys = std::filesystem::absolute(options.keys).lexically_normal();
  crypto::initialise();
  return action(options);
}

}  // namespace

int main(int count, char** words) {
  base::hardenProcess();
  base::startWithoutLoaderVariables(words);
  try {
    return runProgram(count, words);
  } catch (const Interrupted& stop) {
    std::cerr << "\n" << stop.sentence() << "\n";
    return 128 + stop.number();
  } catch (const KeyFileError& error) {
    std::cerr << error.sentence() << "\n";
    return error.kind() == KeyFileError::Case::wrongPassphrase ? kDenied : kConfiguration;
  } catch (const PlaceError& error) {
    std::cerr << error.sentence() << "\n";
  } catch (const PassphraseError& error) {
    std::cerr << error.sentence() << "\n";
  } catch (const NoTerminal& error) {
    std::cerr << error.sentence() << "\n";
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return kFailed;
  }
  return kUsage;
}
