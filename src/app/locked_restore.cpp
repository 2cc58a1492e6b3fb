#include "app/locked_restore.h"

#include "base/codec.h"
#include "base/date.h"
#include "base/diagnostics.h"
#include "base/support_folder.h"
#include "platform/shared/embedded_store_files.h"
#include "unlock/backup_file.h"
#include "unlock/backup_records.h"
#include "unlock/unlock_configuration_store.h"
#include "vault/manifest.h"
#include "vault/sealed_files.h"
#include "vault/vault.h"
#include "vault/vault_contents.h"

namespace sorvane::app {
namespace {

using agent::BackupCounts;
using agent::LockOutcome;
using agent::OpenedBackupCounts;

constexpr std::string_view kNotBuilt =
    "The new vault could not be written. Nothing was restored and the present vault is unchanged. Check that the "
    "support "
    "folder can be written to and that its disk has room, then try again.";

constexpr std::string_view kPreview =
    "The backup opens as a new vault, without a passphrase. The vault that cannot be opened is set aside, whole, in a "
    "folder of its own: nothing of it is deleted. Agents have to be connected again.";

/// A vault that is being made has no sessions yet.
class NoSessions final : public vault::SessionRevoker {
 public:
  void revoke(const vault::Revocation&) override {}
};

/// The folder of a vault to be; gone with this unless it was put in place.
class Stage {
 public:
  explicit Stage(unlock::VaultSwitch& vaults) : vaults_(vaults), folder_(vaults.makeStage()) {}
  ~Stage() {
    if (!vaults_.wasDecided()) vaults_.removeStage(folder_);
  }
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;
  const std::filesystem::path& folder() const { return folder_; }

 private:
  unlock::VaultSwitch& vaults_;
  const std::filesystem::path folder_;
};

struct Opened {
  BackupCounts counts;
  std::optional<unlock::BackupPayload> payload;
};

Opened opened(const base::Files& files, agent::BackupToOpen backup) {
  const unlock::BackupFile file = unlock::readBackupFile(files, backup.file);
  const unlock::ParsedBackup parsed = unlock::parseBackup(file.text());
  Opened result;
  BackupCounts& counts = result.counts;
  counts.sha256 = base::hexLower(file.digest());
  counts.bytes = static_cast<std::int64_t>(file.text().size());
  if (const auto* const envelope = std::get_if<unlock::BackupEnvelope>(&parsed)) {
    counts.isEncrypted = envelope->protection == unlock::BackupEnvelope::Protection::encrypted;
    counts.hasPassphrase = envelope->passphraseWrap.has_value();
    counts.hasRecoveryKey = envelope->recoveryWrap.has_value();
    if (counts.isEncrypted && !backup.passphrase && !backup.recoveryKey) return result;
  }
  result.payload = openBackup(parsed, {std::move(backup.passphrase), std::move(backup.recoveryKey)}).payload;
  const unlock::BackupPayload& payload = *result.payload;
  unlock::requireSoundRecords(payload);
  OpenedBackupCounts& known = counts.opened.emplace();
  known.exportedAt = base::iso8601(payload.exportedAt);
  const auto count = [](const auto& records) { return static_cast<std::int64_t>(records.size()); };
  known.secrets = count(payload.secrets);
  known.environments = count(payload.projects);
  for (const vault::Secret& secret : payload.secrets) known.versions += count(secret.versions);
  known.values = count(payload.values);
  known.events = count(payload.audit);
  known.providerKeys = count(vault::providerKeys(payload));
  return result;
}

std::string reasonFor(const agent::BackupToOpen& backup, const OpenedBackupCounts& known) {
  return std::string(unlock::kReplaceReason) + " of " + known.exportedAt + " with " + std::to_string(known.secrets) +
         (known.secrets == 1 ? " secret" : " secrets") + ". File: " + backup.file;
}

std::string doneSentence(const std::filesystem::path& aside, const std::vector<std::string>& notes) {
  std::string sentence = "The vault that could not be opened is set aside, whole, in " + aside.string() +
                         ". No passphrase is set now, so the values are not sealed: run sorvane passphrase set. Agents "
                         "have to be connected again.";
  for (const std::string& note : notes) sentence += " " + note;
  return sentence;
}

/// The restored vault is the first one: there is none to step back to.
void forgetEmptyVault(base::Files& files, const std::filesystem::path& folder, const std::string& restored) {
  vault::Manifest manifest;
  manifest.current = restored;
  files.writeAtomically(folder / vault::kManifestFile, encodeManifest(manifest).bytes());
  const auto generations = folder / vault::kGenerationsFolder;
  for (const std::string& name : files.list(generations)) {
    if (name == restored) continue;
    for (const std::string& file : files.list(generations / name)) files.remove(generations / name / file);
    std::filesystem::remove(generations / name);
  }
}

}  // namespace

agent::OwnerRestore::Preview LockedRestore::preview(agent::BackupToOpen backup) {
  const unlock::BackupOperations::Turn turn = operations_.begin();
  if (auto refusal = ports_.lock.whyNotReplaced()) return {*std::move(refusal), {}};
  Preview preview;
  preview.backup = opened(ports_.files, std::move(backup)).counts;
  const BackupCounts& counts = *preview.backup;
  preview.outcome.sentence =
      counts.opened ? kPreview : unlock::sentence::neededToOpen(counts.hasPassphrase, counts.hasRecoveryKey);
  return preview;
}

LockOutcome LockedRestore::restore(Order order, const agent::LockCaller& caller) {
  const unlock::BackupOperations::Turn turn = operations_.begin();
  if (auto refusal = ports_.lock.whyNotReplaced()) return *std::move(refusal);
  agent::BackupToOpen file{order.backup.file, {}, {}};
  const Opened backup = opened(ports_.files, std::move(order.backup));
  if (backup.counts.sha256 != order.sha256) throw unlock::BackupError(unlock::sentence::kNotTheFileShown);
  if (!backup.payload) {
    throw unlock::BackupError(
        unlock::sentence::neededToOpen(backup.counts.hasPassphrase, backup.counts.hasRecoveryKey));
  }
  LockOutcome outcome = ports_.lock.confirmReplacement(reasonFor(file, *backup.counts.opened), caller);
  if (outcome.kind != LockOutcome::Kind::done) return outcome;

  unlock::VaultSwitch& vaults = ports_.stores.vaultSwitch();
  const Stage stage(vaults);
  std::vector<std::string> notes;
  try {
    notes = build(stage.folder(), *backup.payload, order.protectKeys);
  } catch (const vault::VaultError&) {
    throw;
  } catch (const base::Error& error) {
    base::diagnose("backup", error.sentence());
    throw unlock::BackupError(kNotBuilt);
  }
  std::filesystem::path aside;
  outcome = ports_.lock.replaceStore([&] { aside = ports_.stores.switchTo(stage.folder(), ports_.clock.now()); });
  if (outcome.kind != LockOutcome::Kind::done) return outcome;
  outcome.sentence = doneSentence(aside, notes) + (outcome.sentence.empty() ? "" : " " + outcome.sentence);
  return outcome;
}

std::vector<std::string> LockedRestore::build(const std::filesystem::path& stage, const unlock::BackupPayload& payload,
                                              bool protectKeys) {
  std::vector<std::string> notes;
  platform::EmbeddedStoreFiles storeFiles(stage, ports_.files);
  const auto store = storeFiles.openPlain();
  vault::makeVaultKey(*store);
  unlock::SealedUnlockConfigurationStore(*vault::sealedSettingsIn(*store),
                                         unlock::SealedUnlockConfigurationStore::FirstRun::no)
      .save({});
  NoSessions sessions;
  vault::Vault made(stage / base::kVaultName, {ports_.files, *store, ports_.clock, sessions});
  made.restore(payload, {}, protectKeys ? vault::providerKeys(payload) : vault::ProviderKeys());
  for (const auto& [secretId, provider] : vault::providerKeys(payload)) {
    if (!protectKeys) break;
    try {
      made.protectSecret(secretId, provider);
    } catch (const base::Error& error) {
      notes.push_back(error.sentence());
    }
  }
  made.log({"Terminal", "backupRestore", "app", {}});
  forgetEmptyVault(ports_.files, made.directory(), made.generation());
  return notes;
}

}  // namespace sorvane::app
