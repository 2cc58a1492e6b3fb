#include "app/options.h"

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "platform/adapters.h"

namespace sorvane::app {
namespace {

constexpr int kUsage = 2;

std::vector<std::string> storeWords() {
  std::vector<std::string> words;
  for (const vault::StoreKind kind : platform::storeKinds()) words.emplace_back(vault::word(kind));
  return words;
}

}  // namespace

std::variant<Options, int> parseOptions(int argc, char** argv) {
  CLI::App app("sorvaned keeps the vault and hands credentials to commands that the owner allows.", "sorvaned");
  Options options;
  std::string store;
  app.add_option("--support-dir", options.supportFolder, "Folder that holds the vault and the socket")
      ->type_name("DIR");
  app.add_option("--store", store, "Where a new vault keeps its values")->check(CLI::IsMember(storeWords()));
  app.set_version_flag("--version", std::string("sorvaned ") + SORVANE_VERSION);
  app.footer(
      "Without --support-dir the folder of SORVANE_SUPPORT_DIR is used, else the user's own data folder.\n"
      "Questions are put to the owner on the terminal that sorvaned runs on. Stop it with Control-C.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  options.store = vault::storeKindOf(store);
  return options;
}

}  // namespace sorvane::app
