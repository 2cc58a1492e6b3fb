#include <filesystem>

#include "agent/owner_action_handlers.h"
#include "agent/owner_backups.h"
#include "base/ids.h"

namespace sorvane::agent {
namespace {

std::string neededFile(const ActionArguments& arguments) {
  const std::string& file = arguments.need("file");
  if (!std::filesystem::path(file).is_absolute()) {
    throw ActionError(std::string(arguments.action()) + " needs the whole path of the file. Nothing was done.");
  }
  return file;
}

base::SecretText taken(ActionCall& call) {
  return call.value ? *std::exchange(call.value, std::nullopt) : base::SecretText();
}

BackupToOpen neededBackup(const ActionArguments& arguments, ActionCall& call) {
  BackupToOpen backup{neededFile(arguments), {}, {}};
  const auto unlock = arguments.text("unlock");
  if (!unlock || *unlock == "none") return backup;
  if (*unlock == "both") {
    backup.passphrase.emplace();
    backup.recoveryKey.emplace();
    return backup;
  }
  if (*unlock != "passphrase" && *unlock != "recoveryKey") {
    throw ActionError("The argument unlock is passphrase or recoveryKey. Nothing was done.");
  }
  (*unlock == "passphrase" ? backup.passphrase : backup.recoveryKey) = taken(call);
  return backup;
}

AgentResponse withText(const std::string& document) {
  AgentResponse response = done();
  response.document = base::SecretText(document);
  return response;
}

std::string protectionInWords(const BackupOrder& order) {
  if (order.protection == "none") return "none: whoever can read the file can read every value";
  if (order.protection == "recoveryKey") return "a new recovery key";
  return order.withRecoveryKey ? "a passphrase, or a new recovery key" : "a passphrase";
}

}  // namespace

OwnerBackups& OwnerActionHandlers::backups() const {
  if (ports_.backups == nullptr) throw ActionError("Backups are not served here. Nothing was done.");
  return *ports_.backups;
}

ActionPlan OwnerActionHandlers::backupCreate(const ActionArguments& arguments, ActionCall& call) {
  auto order = std::make_shared<BackupOrder>();
  order->file = neededFile(arguments);
  order->protection = arguments.need("protection");
  order->withRecoveryKey = arguments.boolean("withRecoveryKey").value_or(false);
  order->replaceFile = arguments.boolean("replace").value_or(false);
  order->passphrase = taken(call);
  backups().check(*order);
  std::vector<std::string> details{"The file will hold every value of the vault and its access history.",
                                   "What opens it: " + protectionInWords(*order) + "."};
  if (order->replaceFile) details.emplace_back("A file of that name is replaced.");
  return asking(
      call, "save a backup of the vault. File: " + order->file,
      [this, order, access = access(call, arguments)] {
        const std::string ticket = base::randomUuid();
        const std::string id = ports_.jobs.start("backup", [this, order, ticket, access](const Jobs::Step& step) {
          return std::optional(backups().create(std::move(*order), ticket, access, step));
        });
        base::JsonWriter out;
        out.beginObject().field("ticket", ticket).endObject();
        AgentResponse response = withDocument(out);
        response.value = base::SecretText(id);
        return response;
      },
      std::move(details));
}

ActionPlan OwnerActionHandlers::backupRecoveryKey(const ActionArguments& arguments, ActionCall&) {
  const std::string ticket = arguments.need("ticket");
  const bool isConfirmed = arguments.boolean("confirmed").value_or(false);
  return answer([this, ticket, isConfirmed] {
    if (isConfirmed) {
      backups().confirmRecoveryKey(ticket);
      return done();
    }
    AgentResponse response = done();
    response.value = backups().takeRecoveryKey(ticket);
    return response;
  });
}

ActionPlan OwnerActionHandlers::backupInspect(const ActionArguments& arguments, ActionCall&) {
  const std::string file = neededFile(arguments);
  return answer([this, file] { return withText(backups().inspect(file)); });
}

ActionPlan OwnerActionHandlers::backupShow(const ActionArguments& arguments, ActionCall& call) {
  auto backup = std::make_shared<BackupToOpen>(neededBackup(arguments, call));
  return answer([this, backup] {
    const std::string id = ports_.jobs.start("backupShow", [this, backup](const Jobs::Step& step) {
      return std::optional(backups().show(std::move(*backup), step));
    });
    return withValue(base::SecretText(id));
  });
}

ActionPlan OwnerActionHandlers::backupPreview(const ActionArguments& arguments, ActionCall& call) {
  auto backup = std::make_shared<BackupToOpen>(neededBackup(arguments, call));
  return answer([this, backup] {
    const std::string id = ports_.jobs.start("backupPreview", [this, backup](const Jobs::Step& step) {
      return std::optional(backups().preview(std::move(*backup), step));
    });
    return withValue(base::SecretText(id));
  });
}

ActionPlan OwnerActionHandlers::backupRestore(const ActionArguments& arguments, ActionCall& call) {
  BackupToOpen backup = neededBackup(arguments, call);
  const std::string file = backup.file, sha256 = arguments.need("sha256");
  const auto prepared =
      backups().prepareRestore(std::move(backup), sha256, arguments.boolean("protectKeys").value_or(false));
  return asking(
      call, "replace the vault with a backup. File: " + file,
      [prepared, access = access(call, arguments)] { return withText(prepared->run(access)); }, prepared->details());
}

ActionPlan OwnerActionHandlers::backupUndo(const ActionArguments& arguments, ActionCall& call) {
  backups().checkStepBack();
  return asking(call, "go back to the vault before the last restore",
                [this, access = access(call, arguments)] {
                  backups().stepBack(access);
                  return done();
                },
                {"The present vault is kept, so that this can be undone in the same way.", "Every task session ends."});
}

}  // namespace sorvane::agent
