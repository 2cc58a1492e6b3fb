#include <nlohmann/json.hpp>

#include "cli/backup_opening.h"
#include "cli/commands.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

int show(Session& session, const BackupGiven& given) {
  const base::Json shown = openedBackup(session, "backupShow", openingOf(session, given));
  if (session.options().json) {
    printJson(shown);
    return 0;
  }
  printBackupCounts(shown);
  printNames("\nSecrets", items(shown, "secrets"), Names::some);
  printNames("\nEnvironments", items(shown, "environments"), Names::some);
  return 0;
}

int verify(Session& session, const BackupGiven& given) {
  const base::Json shown = openedBackup(session, "backupShow", openingOf(session, given));
  if (session.options().json) {
    printJson({{"verified", true}, {"sha256", cell(shown, "sha256")}, {"exportedAt", cell(shown, "exportedAt")}});
    return 0;
  }
  note("The backup is whole: it opens, and every record and value in it was read.");
  printBackupCounts(shown);
  return 0;
}

int undo(Session& session, const BackupGiven& given) {
  requireYes(session, given, "Go back to the vault before the last restore?");
  session.manage("backupUndo", {}, Session::Asks::yes);
  if (session.options().json) {
    printJson({{"undone", true}});
    return 0;
  }
  note("The vault is the one before the last restore. The same command swaps them again.");
  return 0;
}

}  // namespace

void Commands::addBackup(CLI::App& app) {
  CLI::App& group = *app.add_subcommand("backup", "Save the vault to a file, and put one back");
  group.require_subcommand(1, 1);
  const auto add = [&](const char* name, const char* help, int (*run)(Session&, const BackupGiven&)) {
    const auto given = std::make_shared<BackupGiven>();
    CLI::App& command = *group.add_subcommand(name, help);
    command.callback([this, given, run] { action = [given, run](Session& session) { return run(session, *given); }; });
    return std::pair<CLI::App*, BackupGiven*>(&command, given.get());
  };
  {
    const auto [command, given] = add("create",
                                      "Save the whole vault, values included (asks). With --json a new recovery key is "
                                      "in the answer, once: keep it, since sorvane does not",
                                      createBackup);
    command->add_option("file", given->file, "The file to make")->required();
    command->add_flag("--passphrase", given->passphrase, "A passphrase opens it; this is what no option means");
    command->add_flag("--recovery-key", given->recoveryKey,
                      "A new recovery key opens it, shown once and kept nowhere else");
    command->add_flag("--none", given->none, "No encryption: whoever can read the file can read every value");
    command->add_flag("--force", given->force, "Replace a file of that name once the new one is verified");
  }
  const auto addOpening = [&](const char* name, const char* help, int (*run)(Session&, const BackupGiven&)) {
    const auto added = add(name, help, run);
    added.first->add_option("file", added.second->file, "The backup")->required();
    added.first->add_flag("--passphrase", added.second->passphrase, "Open it with its passphrase");
    added.first->add_flag("--recovery-key", added.second->recoveryKey, "Open it with its recovery key");
    return added;
  };
  addOpening("show", "Open a backup and list what is in it; changes nothing", show);
  addOpening("verify", "Open a backup and check it; changes nothing", verify);
  {
    const auto [command, given] = addOpening("restore", "Replace the vault with a backup (asks)", restoreBackup);
    command->add_flag("--protect-keys", given->protectKeys, "Protect the keys of model providers in it");
    command->add_flag("--leave-keys", given->leaveKeys, "Leave them unprotected");
    command->add_flag("--set-aside", given->setAside,
                      "For a locked vault whose passphrase is lost: keep it in a folder of its own and open a new one");
    command->add_flag("--yes", given->yes, "Do not ask here; the owner is asked all the same");
  }
  const auto [command, given] = add("undo", "Go back to the vault before the last restore (asks)", undo);
  command->add_flag("--yes", given->yes, "Do not ask here; the owner is asked all the same");
}

}  // namespace sorvane::cli
