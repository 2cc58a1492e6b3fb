#include "unlock/backup_work.h"

#include "base/codec.h"
#include "base/diagnostics.h"
#include "unlock/backup_records.h"

namespace sorvane::unlock {
namespace {

/// Steps behind the gathering, for the progress: sealing, wrapping, encoding, verifying, saving.
constexpr std::int64_t kStepsBehind = 5;

BackupInspection inspected(const BackupFile& file, const ParsedBackup& parsed) {
  BackupInspection inspection;
  inspection.sha256 = base::hexLower(file.digest());
  inspection.bytes = static_cast<std::int64_t>(file.text().size());
  if (const auto* const envelope = std::get_if<BackupEnvelope>(&parsed)) {
    inspection.isEncrypted = envelope->protection == BackupEnvelope::Protection::encrypted;
    inspection.hasPassphrase = envelope->passphraseWrap.has_value();
    inspection.hasRecoveryKey = envelope->recoveryWrap.has_value();
  }
  return inspection;
}

}  // namespace

void BackupWork::check(const Order& order) {
  requireBackupPlace({order.file, order.existing, ports_.supportFolder});
  requireBackupChoice(order.choice, ports_.vault.records()->secrets);
}

std::int64_t BackupWork::create(Order order, const vault::AccessContext& context, const Progress& progress) {
  const BackupOperations::Turn turn = operations_.begin();
  check(order);
  std::int64_t gathered = 0, total = 0;
  const auto at = [&](std::int64_t step) {
    if (progress) progress(gathered + step, total + kStepsBehind);
  };
  BackupPayload payload =
      gatherBackup(ports_.vault, context, ports_.clock.now(), [&](std::int64_t done, std::int64_t all) {
        gathered = done;
        total = all;
        at(0);
      });
  // What could not be opened again must not be taken for a backup.
  try {
    requireSoundRecords(payload);
  } catch (const base::Error&) {
    throw BackupError(sentence::kNotVerified);
  }
  BackupExport made =
      exportBackup(std::move(payload), order.choice, [&](BackupStep step) { at(static_cast<std::int64_t>(step)); });
  if (made.recoveryKey) {
    recoveryKeys_.offer(order.ticket, *std::exchange(made.recoveryKey, std::nullopt), [&] { at(kStepsBehind - 1); });
  }
  removeOldLeftovers(ports_.files, order.file.parent_path(), ports_.clock.now());
  saveBackupFile(ports_.files, {order.file, order.existing, ports_.supportFolder}, made.data,
                 [&] { at(kStepsBehind - 1); });
  return made.secretCount;
}

BackupInspection BackupWork::inspect(const std::filesystem::path& path) {
  const BackupFile file = readBackupFile(ports_.files, path);
  const ParsedBackup parsed = parseBackup(file.text());
  // An uploaded backup is refused here as it is when it is opened.
  if (std::holds_alternative<CloudBackupEnvelope>(parsed)) openBackup(parsed, {});
  return inspected(file, parsed);
}

OpenedBackupFile BackupWork::open(const std::filesystem::path& path, const BackupSecret& secret) {
  const BackupOperations::Turn turn = operations_.begin();
  const BackupFile file = readBackupFile(ports_.files, path);
  const ParsedBackup parsed = parseBackup(file.text());
  OpenedBackupFile opened{inspected(file, parsed), openBackup(parsed, secret).payload};
  requireSoundRecords(opened.payload);
  return opened;
}

OpenedBackupFile BackupWork::openShown(const std::filesystem::path& path, const BackupSecret& secret,
                                       std::string_view sha256) {
  OpenedBackupFile opened = open(path, secret);
  if (opened.file.sha256 != sha256) throw BackupError(sentence::kNotTheFileShown);
  return opened;
}

BackupChanges BackupWork::compare(const BackupPayload& payload, const Progress& progress) {
  const auto total = static_cast<std::int64_t>(payload.secrets.size());
  BackupChanges changes = backupChanges(ports_.vault, payload);
  if (progress) progress(total, total);
  return changes;
}

std::vector<std::string> BackupWork::restore(const BackupPayload& payload, ProviderKeys keys,
                                             const vault::AccessContext& context, const Progress& progress) {
  const BackupOperations::Turn turn = operations_.begin();
  std::vector<std::string> notes;
  ports_.alone([&] {
    const bool protects = keys == ProviderKeys::protect;
    ports_.vault.restore(payload, progress, protects ? vault::providerKeys(payload) : vault::ProviderKeys());
    try {
      if (protects) notes = protectKeys(payload);
      ports_.vault.log(context);
    } catch (const base::Error& error) {
      notes.push_back(error.sentence());
    }
  });
  return notes;
}

/// What could not be protected ahead, and why not.
std::vector<std::string> BackupWork::protectKeys(const BackupPayload& payload) {
  std::vector<std::string> notes;
  const auto known = ports_.vault.protection().settings;
  for (const auto& [secretId, provider] : vault::providerKeys(payload)) {
    if (known->protectedSecrets.contains(secretId)) continue;
    try {
      ports_.vault.protectSecret(secretId, provider);
    } catch (const base::Error& error) {
      notes.push_back(error.sentence());
    }
  }
  return notes;
}

void BackupWork::stepBack(const vault::AccessContext& context) {
  const BackupOperations::Turn turn = operations_.begin();
  ports_.alone([&] {
    ports_.vault.stepBack();
    try {
      ports_.vault.log(context);
    } catch (const base::Error& error) {
      base::diagnose("backup", error.sentence());
    }
  });
}

}  // namespace sorvane::unlock
