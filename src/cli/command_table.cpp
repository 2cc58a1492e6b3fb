#include "cli/command_table.h"

#include <cstring>

namespace sorvane::cli {

void addCommands(Commands& commands, CLI::App& app, int count, char** words) {
  struct Group {
    const char* word;
    void (Commands::*add)(CLI::App&);
  };
  constexpr Group kGroups[] = {{"run", &Commands::addRun},
                               {"secret", &Commands::addSecret},
                               {"env", &Commands::addEnvironment},
                               {"export", &Commands::addExport},
                               {"session", &Commands::addSession},
                               {"import", &Commands::addImport},
                               {"scan", &Commands::addScan},
                               {"agent", &Commands::addAgent},
                               {"protect", &Commands::addProtect},
                               {"unprotect", &Commands::addUnprotect},
                               {"proxy", &Commands::addProxy},
                               {"mcp", &Commands::addMcp},
                               {"backup", &Commands::addBackup},
                               {"phone", &Commands::addPhone},
                               {"log", &Commands::addLog},
                               {"uninstall", &Commands::addUninstall},
                               {"completion", &Commands::addCompletion}};
  for (const Group& group : kGroups) {
    if (count > 1 && std::strcmp(words[1], group.word) == 0) return (commands.*group.add)(app);
  }
  commands.addStatus(app);
  commands.addLock(app);
  commands.addApplication(app);
  for (const Group& group : kGroups) (commands.*group.add)(app);
}

void addOptions(CLI::App& app, Options& options) {
  app.add_option("--support-dir", options.supportFolder, "The support folder, when it is not the usual one");
  app.add_option("--requestor", options.requestor, "What the question says that asks");
  app.add_flag("--json", options.json, "One JSON document on standard output, errors too");
  app.add_flag("--no-input", options.noInput, "Never wait for something to be typed here");
  app.set_version_flag("--version", "sorvane " SORVANE_VERSION);
  app.fallthrough();
}

}  // namespace sorvane::cli
