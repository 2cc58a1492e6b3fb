#include "app/backups.h"

#include <algorithm>

#include "base/date.h"
#include "base/json_writer.h"
#include "vault/vault_sentences.h"

namespace sorvane::app {
namespace {

using unlock::BackupChanges;
using unlock::BackupError;
using unlock::BackupWork;

BackupWork::Order orderOf(const agent::BackupOrder& order, const std::string& ticket) {
  BackupWork::Order wanted;
  wanted.file = order.file;
  wanted.existing = order.replaceFile ? unlock::ExistingFile::replace : unlock::ExistingFile::refuse;
  wanted.choice.protection = unlock::backupProtectionOf(order.protection);
  wanted.choice.passphrase = order.passphrase.clone();
  wanted.choice.withRecoveryKey = order.withRecoveryKey;
  wanted.ticket = ticket;
  return wanted;
}

unlock::BackupSecret secretOf(agent::BackupToOpen& backup) {
  return {std::move(backup.passphrase), std::move(backup.recoveryKey)};
}

template <typename Record>
void writeNames(base::JsonWriter& out, std::string_view key, const std::vector<Record>& records) {
  out.key(key).beginArray();
  for (const Record& record : records) out.string(record.name);
  out.endArray();
}

void writeInspection(base::JsonWriter& out, const unlock::BackupInspection& file) {
  out.key("bytes").integer(file.bytes).key("encrypted").boolean(file.isEncrypted);
  out.key("opensWith").beginArray();
  if (file.hasPassphrase) out.string("passphrase");
  if (file.hasRecoveryKey) out.string("recoveryKey");
  out.endArray().field("sha256", file.sha256);
}

void writeOpened(base::JsonWriter& out, const unlock::OpenedBackupFile& opened) {
  std::int64_t versions = 0;
  for (const vault::Secret& secret : opened.payload.secrets) {
    versions += static_cast<std::int64_t>(secret.versions.size());
  }
  writeInspection(out, opened.file);
  out.field("exportedAt", base::iso8601(opened.payload.exportedAt));
  out.key("events").integer(static_cast<std::int64_t>(opened.payload.audit.size()));
  out.key("values").integer(static_cast<std::int64_t>(opened.payload.values.size()));
  out.key("versions").integer(versions);
  writeNames(out, "secrets", opened.payload.secrets);
  writeNames(out, "environments", opened.payload.projects);
}

void writeChanges(base::JsonWriter& out, std::string_view key, const unlock::RecordChanges& changes) {
  out.key(key).beginObject().strings("added", changes.added).strings("changed", changes.changed);
  out.strings("lost", changes.lost).key("same").integer(changes.same).endObject();
}

std::vector<std::string> noticesOf(const BackupChanges& changes) {
  std::vector<std::string> notices{std::string(unlock::sentence::kReplaceWarning)};
  if (changes.presentIsUnknown) {
    notices.emplace_back("The present vault cannot be opened, so nobody can tell what of it would be lost.");
  }
  if (changes.hasCloudSecrets) notices.emplace_back(unlock::sentence::kCloudSecretsStay);
  return notices;
}

/// Whether no more is replaced than was shown.
bool isAsShown(const unlock::RecordChanges& now, const unlock::RecordChanges& shown) {
  return now.lost == shown.lost && now.changed == shown.changed;
}

std::string counted(std::size_t count, std::string_view one, std::string_view many) {
  return std::to_string(count) + " " + std::string(count == 1 ? one : many);
}

}  // namespace

void Backups::check(const agent::BackupOrder& order) {
  work_.requireIdle();
  work_.check(orderOf(order, {}));
}

std::string Backups::create(agent::BackupOrder order, const std::string& ticket, const vault::AccessContext& context,
                            const agent::Jobs::Step& step) {
  const auto progress = [&](std::int64_t done, std::int64_t total) {
    try {
      step(done, total);
    } catch (const agent::JobStopped&) {
      throw agent::JobStopped(unlock::sentence::kExportCancelled);
    }
  };
  const std::int64_t secrets = work_.create(orderOf(order, ticket), context, progress);
  base::JsonWriter out;
  out.beginObject().field("file", order.file).key("secrets").integer(secrets).endObject();
  return std::string(out.view());
}

std::optional<base::SecretText> Backups::takeRecoveryKey(const std::string& ticket) {
  return work_.recoveryKeys().take(ticket);
}

void Backups::confirmRecoveryKey(const std::string& ticket) {
  if (!work_.recoveryKeys().confirm(ticket)) throw BackupError(unlock::sentence::kExportCancelled);
}

std::string Backups::inspect(const std::string& file) {
  base::JsonWriter out;
  out.beginObject();
  const unlock::BackupInspection seen = work_.inspect(file);
  writeInspection(out, seen);
  if (seen.isEncrypted) out.field("prompt", unlock::sentence::neededToOpen(seen.hasPassphrase, seen.hasRecoveryKey));
  out.endObject();
  return std::string(out.view());
}

std::string Backups::show(agent::BackupToOpen backup, const agent::Jobs::Step& step) {
  step(0, 1);
  const unlock::OpenedBackupFile opened = work_.open(backup.file, secretOf(backup));
  step(1, 1);
  base::JsonWriter out;
  out.beginObject();
  writeOpened(out, opened);
  out.endObject();
  return std::string(out.view());
}

std::string Backups::preview(agent::BackupToOpen backup, const agent::Jobs::Step& step) {
  step(0, 1);
  const unlock::OpenedBackupFile opened = work_.open(backup.file, secretOf(backup));
  const BackupChanges changes = work_.compare(opened.payload, step);
  base::JsonWriter out;
  out.beginObject();
  writeOpened(out, opened);
  out.strings("notices", noticesOf(changes)).key("changes").beginObject();
  out.key("presentIsUnknown").boolean(changes.presentIsUnknown);
  writeChanges(out, "secrets", changes.secrets);
  writeChanges(out, "environments", changes.environments);
  out.key("unprotectedKeys").beginArray();
  for (const BackupChanges::ProviderKey& key : changes.unprotectedKeys) {
    out.beginObject().field("provider", vault::shownName(key.provider)).field("secret", key.name).endObject();
  }
  out.endArray().endObject().endObject();
  return std::string(out.view());
}

/// The opened backup is held here from before the question until after the answer: what was shown is what is restored.
class Backups::PreparedRestore final : public Restore {
 public:
  PreparedRestore(Backups& backups, unlock::OpenedBackupFile opened, BackupWork::ProviderKeys keys)
      : backups_(backups),
        opened_(std::move(opened)),
        keys_(keys),
        changes_(backups.work_.compare(opened_.payload, {})) {}

  std::vector<std::string> details() const override {
    std::vector<std::string> details{std::string(unlock::sentence::kReplaceWarning), "SHA-256: " + opened_.file.sha256};
    details.push_back(changed(changes_.secrets, "secret", "secrets"));
    details.push_back(changed(changes_.environments, "environment", "environments"));
    details.emplace_back("Every task session ends, and commands that run with values are stopped.");
    if (!changes_.unprotectedKeys.empty()) {
      details.push_back(
          counted(changes_.unprotectedKeys.size(), "key of a model provider is", "keys of model providers are") +
          (keys_ == BackupWork::ProviderKeys::protect ? " protected with it." : " not protected."));
    }
    return details;
  }

  std::string run(const vault::AccessContext& context) override {
    const BackupChanges now = backups_.work_.compare(opened_.payload, {});
    if (!isAsShown(now.secrets, changes_.secrets) || !isAsShown(now.environments, changes_.environments)) {
      throw BackupError(unlock::sentence::kVaultChanged);
    }
    struct Ending {
      const BackupWork::Progress& restoring;
      ~Ending() { restoring(0, 0); }
    } const ending{backups_.restoring_};
    std::vector<std::string> notices = backups_.work_.restore(opened_.payload, keys_, context, backups_.restoring_);
    backups_.restored_();
    if (changes_.hasCloudSecrets) notices.emplace_back(unlock::sentence::kCloudSecretsStay);
    base::JsonWriter out;
    out.beginObject().key("environments").integer(static_cast<std::int64_t>(opened_.payload.projects.size()));
    out.key("secrets").integer(static_cast<std::int64_t>(opened_.payload.secrets.size()));
    out.strings("notices", notices).endObject();
    return std::string(out.view());
  }

 private:
  std::string changed(const unlock::RecordChanges& changes, std::string_view one, std::string_view many) const {
    std::string text =
        counted(changes.added.size(), one, many) + " added, " + std::to_string(changes.changed.size()) + " changed, ";
    return text + (changes_.presentIsUnknown ? "nobody can tell how many lost."
                                             : std::to_string(changes.lost.size()) + " lost.");
  }

  Backups& backups_;
  const unlock::OpenedBackupFile opened_;
  const BackupWork::ProviderKeys keys_;
  const BackupChanges changes_;
};

std::shared_ptr<agent::OwnerBackups::Restore> Backups::prepareRestore(agent::BackupToOpen backup,
                                                                      const std::string& sha256, bool protectKeys) {
  const std::string file = backup.file;
  return std::make_shared<PreparedRestore>(
      *this, work_.openShown(file, secretOf(backup), sha256),
      protectKeys ? BackupWork::ProviderKeys::protect : BackupWork::ProviderKeys::leave);
}

void Backups::checkStepBack() {
  if (!vault_.canStepBack()) throw vault::VaultError(std::string(vault::sentence::kNoPrevious));
}

void Backups::stepBack(const vault::AccessContext& context) {
  work_.stepBack(context);
}

}  // namespace sorvane::app
