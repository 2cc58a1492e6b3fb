// `sorvane backup restore`, into the vault that is open or into a new one.
#include <nlohmann/json.hpp>

#include "cli/backup_opening.h"
#include "cli/confirmation.h"
#include "cli/lock_link.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

using agent::BackupCounts;
using agent::LockReport;
using agent::OwnerOp;
using agent::OwnerRequest;

void printChanges(const base::Json& preview) {
  printBackupCounts(preview);
  const base::Json& changes = preview.at("changes");
  for (const char* const kind : {"secrets", "environments"}) {
    const base::Json& changed = changes.at(kind);
    printNames(std::string("\nAdded ") + kind, items(changed, "added"), Names::some);
    printNames(std::string("\nChanged ") + kind, items(changed, "changed"), Names::some);
    printNames(std::string("\nLost ") + kind, items(changed, "lost"), Names::all);
    printLine("\nUnchanged " + std::string(kind) + ": " + std::to_string(changed.value("same", 0LL)));
  }
  printLine("");
  for (const base::Json& notice : items(preview, "notices")) note(notice.get<std::string>());
}

bool protectsListed(const Session& session, const BackupGiven& given, const base::Json& keys) {
  if (keys.empty()) return given.protectKeys;
  if (!session.options().json && !given.protectKeys && !given.leaveKeys) {
    note("These keys of model providers in the backup are not protected, so agents could be handed them:");
    for (const base::Json& key : keys) note("  " + cell(key, "secret") + " (" + cell(key, "provider") + ")");
  }
  return protectsKeys(session, given, "Protect them when they are restored?");
}

/// While it waits for the answer, the lock tells how far the restore is: the agent socket is closed meanwhile.
agent::AgentResponse restored(Session& session, const OpenedWith& with, const Session::Arguments& arguments) {
  const auto folder = base::supportFolder(session.options().supportFolder);
  return session.manageAttended("backupRestore", arguments, with.opening.copy(), [&folder] {
    if (!drawsProgress()) return true;
    const auto report = lockReportOf(folder);
    if (report && report->restoring) drawProgress("backupRestore", report->restoring->done, report->restoring->total);
    return true;
  });
}

// Into a new vault.

std::string countsInJson(const BackupCounts& counts, base::Json& out) {
  out["sha256"] = counts.sha256;
  out["encrypted"] = counts.isEncrypted;
  if (!counts.opened) throw notUnderstood();
  out["exportedAt"] = counts.opened->exportedAt;
  out["secrets"] = counts.opened->secrets;
  out["environments"] = counts.opened->environments;
  out["versions"] = counts.opened->versions;
  out["values"] = counts.opened->values;
  out["events"] = counts.opened->events;
  return counts.sha256;
}

void give(OwnerRequest& request, const BackupOpening& opening) {
  if (opening.unlock == "passphrase" || opening.unlock == "both") request.passphrase = opening.copy();
  if (opening.unlock == "recoveryKey" || opening.unlock == "both") request.recoveryKey = opening.copy();
}

/// Whoever still has the passphrase unlocks, and loses nothing of the vault.
void requireLost(const Session& session, const BackupGiven& given, const LockReport& report) {
  if (given.setAside || report.prompt != "passphrase") return;
  const std::string advice =
      "sorvane is locked and opens with its passphrase. If you have that, unlock sorvane and restore then.";
  const bool canAnswer = !given.yes && canAsk(session.options());
  if (!canAnswer) {
    throw Failure(kTryLater, "locked",
                  advice +
                      " Nothing was restored. If the passphrase is lost, give --set-aside: the locked vault is kept "
                      "in a folder of its own, and the backup opens as a new one.");
  }
  if (!confirmed(advice + " Is the passphrase lost?")) {
    throw Failure(kTryLater, "locked", "Nothing was restored. Unlock sorvane with sorvane unlock, then restore.");
  }
}

}  // namespace

int restoreBackup(Session& session, const BackupGiven& given) {
  if (given.protectKeys && given.leaveKeys) {
    throw Failure(kUsage, "usage", "Choose --protect-keys or --leave-keys. Nothing was restored.");
  }
  const auto lock = lockReportOf(base::supportFolder(session.options().supportFolder));
  if (lock && !lock->isUnlocked) return restoreLocked(session, given);
  const OpenedWith with = openingOf(session, given);
  const base::Json preview = openedBackup(session, "backupPreview", with);
  if (!preview.contains("changes")) throw notUnderstood();
  if (!session.options().json) printChanges(preview);
  Session::Arguments arguments = with.arguments;
  arguments["sha256"] = cell(preview, "sha256");
  if (protectsListed(session, given, items(preview.at("changes"), "unprotectedKeys")))
    arguments["protectKeys"] = "true";
  requireYes(session, given, "Replace the vault with this backup?");
  const auto response = restored(session, with, arguments);
  auto report = response.document ? base::parseJson(response.document->view()) : std::nullopt;
  if (!report) throw notUnderstood();
  if (session.options().json) {
    (*report)["preview"] = preview;
    printJson(*report);
    return 0;
  }
  note("Restored " + std::to_string(report->value("secrets", 0LL)) + " secrets and " +
       std::to_string(report->value("environments", 0LL)) +
       " environments. Every task session has ended. To go back: sorvane backup undo");
  for (const base::Json& notice : items(*report, "notices")) note(notice.get<std::string>());
  return 0;
}

int restoreLocked(Session& session, const BackupGiven& given) {
  LockLink link(session.options());
  const LockReport report = link.report();
  OwnerRequest request;
  request.op = OwnerOp::backupPreview;
  request.file = wholePath(given.file);
  agent::OwnerAnswer seen = link.answer(request);
  if (!seen.backup) throw notUnderstood();
  requireLost(session, given, report);
  const BackupOpening opening = readOpening(
      session.options(), given,
      {seen.backup->isEncrypted, seen.backup->hasPassphrase, seen.backup->hasRecoveryKey, seen.outcome.sentence});
  give(request, opening);
  if (seen.backup->isEncrypted) seen = link.answer(request);
  base::Json preview = base::Json::object();
  request.sha256 = countsInJson(seen.backup.value(), preview);
  if (!session.options().json) {
    printBackupCounts(preview);
    printLine("");
    note(seen.outcome.sentence);
  }
  if (const std::int64_t keys = seen.backup->opened->providerKeys; keys > 0) {
    request.protectKeys = protectsKeys(session, given,
                                       "The backup holds " + std::to_string(keys) +
                                           (keys == 1 ? " key of a model provider" : " keys of model providers") +
                                           ", which agents could be handed. Protect what it restores of them?");
  }
  requireYes(session, given, "Set the locked vault aside and restore the backup as a new one?");
  request.op = OwnerOp::backupRestore;
  const agent::LockOutcome outcome = link.askOwner(request, report);
  if (session.options().json) {
    printJson(
        {{"environments", preview["environments"]}, {"notices", {outcome.sentence}}, {"secrets", preview["secrets"]}});
    return 0;
  }
  note("Restored " + std::to_string(seen.backup->opened->secrets) + " secrets and " +
       std::to_string(seen.backup->opened->environments) + " environments. " + outcome.sentence);
  return 0;
}

}  // namespace sorvane::cli
