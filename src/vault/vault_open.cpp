#include <nlohmann/json.hpp>

#include "base/json.h"
#include "base/temporary_files.h"
#include "vault/access_log.h"
#include "vault/accounts.h"
#include "vault/journal.h"
#include "vault/manifest.h"
#include "vault/record_codec.h"
#include "vault/sealed_files.h"
#include "vault/sealed_settings.h"
#include "vault/vault.h"
#include "vault/vault_index.h"
#include "vault/vault_observers.h"
#include "vault/vault_sentences.h"
#include "vault/vault_state.h"

namespace sorvane::vault {
namespace {

namespace fs = std::filesystem;

void requireUsableFolder(const fs::path& directory) {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(directory, error);
  if (status.type() != fs::file_type::directory && status.type() != fs::file_type::not_found) {
    throw VaultError(std::string(sentence::kInvalidLocation));
  }
}

}  // namespace

Vault::Vault(fs::path directory, Ports ports)
    : directory_(std::move(directory)),
      ports_(ports),
      settings_(sealedSettingsIn(ports.store)),
      observers_(std::make_unique<Observers>()),
      protectedKeys_(std::make_unique<ProtectedKeys>(*settings_, ports.store)) {
  const base::RecursiveLock lock(lock_);
  openOrFail();
}

/// What goes wrong becomes the storage failure.
void Vault::openOrFail() {
  try {
    open();
  } catch (const VaultError& error) {
    storageFailure_ = error.sentence();
  } catch (const base::Error& error) {
    storageFailure_ = sentence::cannotOpen(error.sentence());
  } catch (const std::exception& error) {
    storageFailure_ = sentence::cannotOpen(error.what());
  }
}

Vault::~Vault() = default;

void Vault::open() {
  requireUsableFolder(directory_);
  auto contents = ports_.files.read(directory_ / kManifestFile, kMaxManifestBytes);
  if (!contents) {
    create();
    contents = ports_.files.read(directory_ / kManifestFile, kMaxManifestBytes);
    if (!contents) throw VaultError(std::string(sentence::kInvalidLocation));
  }
  const auto outcome = decodeManifest(base::textOf(contents->bytes));
  if (const auto* const failure = std::get_if<DecodeFailure>(&outcome)) {
    throw VaultError(
        std::string(*failure == DecodeFailure::newerFormat ? sentence::kNewerVersion : sentence::kFileDamaged));
  }
  const Manifest& manifest = std::get<Manifest>(outcome);
  generation_ = manifest.current;
  previousGeneration_ = manifest.previous;
  manifestIdentity_ = contents->identity;
  if (manifest.cancelledMigrations) {
    cancelledMigrationIDs_.insert(manifest.cancelledMigrations->begin(), manifest.cancelledMigrations->end());
  }
  if (ports_.files.list(generationFolder(generation_)).empty()) {
    throw VaultError(std::string(previousGeneration_ ? sentence::kRestoredFilesMissing : sentence::kFileDamaged));
  }
  removeStrayFiles();
  reclaimJournal();
  recoverJournal();
  const auto key = readVaultKey(ports_.store);
  if (!key) throw VaultError(std::string(sentence::kKeyDoesNotOpen));
  records_ = decodeRecords(*key);
  loadCloudCache();
  try {
    settleLogTail(ports_.files, generationFolder(generation_));
  } catch (const base::FileError&) {
    logTailUnsure_ = true;  // a folder that cannot be written to can still be read; the next append tries again
  }
}

void Vault::create() {
  if (holdsRemains()) throw VaultError(sentence::cannotOpen(sentence::kManifestMissing));
  generation_ = newGenerationName(ports_.clock.now());
  for (const fs::path& folder : {directory_, directory_ / kGenerationsFolder, generationFolder(generation_)}) {
    ports_.files.makeFolder(folder);
  }
  auto key = readVaultKey(ports_.store);  // a creation that was cut short has made it already
  if (!key) key = makeVaultKey(ports_.store);
  const auto write = [&](std::string_view name, const base::SecretText& text) REQUIRES(lock_) {
    ports_.files.writeAtomically(fileOf(name), sealFile(*key, {generation_, name}, text.view()));
  };
  write(kSecretsFile, encodeSecrets({}));
  write(kProjectsFile, encodeProjects({}));
  Manifest manifest;
  manifest.current = generation_;
  ports_.files.writeAtomically(directory_ / kManifestFile, encodeManifest(manifest).bytes());
}

/// Whether a folder without a manifest holds what a new vault would bury. A creation that was cut short leaves empty
/// files and a key, but no value.
bool Vault::holdsRemains() {
  for (const std::string& account : ports_.store.accounts()) {
    if (parseVersionAccount(account)) return true;
  }
  const auto key = readVaultKey(ports_.store);
  for (const std::string& generation : generationNames()) {
    for (const std::string_view name : {kSecretsFile, kProjectsFile}) {
      const auto contents = ports_.files.read(generationFolder(generation) / name);
      if (!contents) continue;
      const auto text = key ? openFile(*key, {generation, name}, contents->bytes) : std::nullopt;
      if (!text || text->view() != encodeSecrets({}).view()) return true;
    }
  }
  return ports_.files.identity(directory_ / kJournalFile).has_value();
}

void Vault::removeStrayFiles() {
  for (const fs::path& folder : {directory_, generationFolder(generation_)}) {
    base::removeTemporaryFiles(ports_.files, folder);
  }
}

void Vault::loadCloudCache() {
  const auto contents = ports_.files.read(fileOf(kCloudCacheFile));
  if (!contents) return;
  const auto key = readVaultKey(ports_.store);
  const auto text = key ? openFile(*key, {generation_, kCloudCacheFile}, contents->bytes) : std::nullopt;
  if (!text) throw VaultError(std::string(sentence::kKeyDoesNotOpen));
  const auto json = base::parseJson(text->view());
  if (!json || !json->is_object()) throw VaultError(std::string(sentence::kInvalidCloudCache));
  const auto names = json->find("retiredEnvironmentNames");
  if (names == json->end() || names->is_null()) return;
  if (!names->is_array()) throw VaultError(std::string(sentence::kInvalidCloudCache));
  for (const base::Json& name : *names) {
    if (!name.is_string()) throw VaultError(std::string(sentence::kInvalidCloudCache));
    retiredEnvironmentNames_.insert(nameKey(name.get_ref<const std::string&>()));
  }
}

}  // namespace sorvane::vault
