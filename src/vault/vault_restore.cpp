#include <algorithm>

#include "base/diagnostics.h"
#include "base/ids.h"
#include "vault/access_log.h"
#include "vault/accounts.h"
#include "vault/journal.h"
#include "vault/manifest.h"
#include "vault/namespaced_store.h"
#include "vault/record_codec.h"
#include "vault/sealed_files.h"
#include "vault/vault.h"
#include "vault/vault_contents.h"
#include "vault/vault_observers.h"
#include "vault/vault_sentences.h"
#include "vault/vault_state.h"

namespace sorvane::vault {
namespace {

namespace fs = std::filesystem;

base::SecretText linesOf(const std::vector<AccessEvent>& events) {
  base::SecretText lines;
  for (const AccessEvent& event : events) appendEventLine(lines, event);
  return lines;
}

std::vector<std::string> idsOf(const std::shared_ptr<const Records>& records) {
  std::vector<std::string> ids;
  if (!records) return ids;
  for (const Secret& secret : records->secrets) ids.push_back(secret.id);
  return ids;
}

}  // namespace

// A restore, and what is on disk at each of its steps:
//
//   values staged under the new generation's name   the manifest names the old generation
//   its files written, everything read back          same; a start finds the old vault, the rest is collected later
//   keys protected that are to be                    same, and these keys are protected in it as well
//   the old generation's journal moved into it       same; a start moves it back
//   the manifest replaced                            the new generation is the vault, the old one the step back
//   opened; what is now two restores back removed    same
//
/// Restoration is one of these while it runs.
struct Vault::Restoration {
  std::string generation;  ///< of the restored vault
  crypto::SymmetricKey key;
  /// The manifest as it stood, byte for byte, and what it says if it can be read.
  std::optional<base::Bytes> before;
  std::optional<Manifest> manifest;
  std::optional<std::string> previous;  ///< the generation that is replaced, where that can be told
};

void Vault::restore(const VaultContents& contents, const Progress& progress, const ProviderKeys& protect) {
  if (!isRestorable(contents)) throw VaultError(std::string(sentence::kNotVerified));
  std::vector<std::string> before;
  {
    const base::RecursiveLock lock(lock_);
    before = idsOf(records_);
    try {
      const Restoration restoration = beginRestoration();
      std::shared_ptr<const LocalProxySettings> unprotected;
      try {
        stageContents(restoration, contents, progress);
        if (!isStaged(restoration, contents)) throw VaultError(std::string(sentence::kNotVerified));
        unprotected = protectAhead(contents, protect);
        switchTo(restoration);
      } catch (...) {
        if (dropStaged(restoration)) undoProtection(unprotected);
        throw;
      }
    } catch (const base::FileError& error) {
      throw VaultError(sentence::notRestored(error.sentence()));
    } catch (const SecretStoreError& error) {
      throw VaultError(sentence::notRestored(error.sentence()));
    }
  }
  announceReplaced(before);
  if (!protect.empty()) observers_->protection({});
}

/// What is known of the vault that is replaced. A vault that is open must be the active one, with nothing half done.
Vault::Restoration Vault::beginRestoration() {
  boundary_ = 0;
  if (!storageFailure_) currentRecords();
  ports_.files.makeFolder(directory_);
  if (storageFailure_) putObstaclesAside();
  ports_.files.makeFolder(directory_ / kGenerationsFolder);
  removeUnusedGenerations();
  auto key = readVaultKey(ports_.store);
  if (!key) key = makeVaultKey(ports_.store);
  Restoration restoration{newRestoredGenerationName(ports_.clock.now()), *std::move(key), {}, {}, {}};
  if (auto contents = ports_.files.read(directory_ / kManifestFile, kMaxManifestBytes)) {
    auto decoded = decodeManifest(base::textOf(contents->bytes));
    if (auto* const manifest = std::get_if<Manifest>(&decoded)) restoration.manifest = std::move(*manifest);
    restoration.before = std::move(contents->bytes);
  }
  restoration.previous = restoration.manifest ? std::optional(restoration.manifest->current) : lastChangedGeneration();
  return restoration;
}

/// What stands in the place of the manifest or of the generations, and is none, is kept under another name.
void Vault::putObstaclesAside() {
  const auto putAside = [&](const fs::path& path) REQUIRES(lock_) {
    const fs::path aside = path.string() + ".aside-" + base::randomHex(8);
    ports_.files.rename(path, aside);
    base::diagnose("vault", "what stood in the place of " + path.filename().string() + " is now called " +
                                aside.filename().string());
  };
  std::error_code none;
  const fs::path generations = directory_ / kGenerationsFolder, manifest = directory_ / kManifestFile;
  const fs::file_type folder = fs::symlink_status(generations, none).type();
  if (folder != fs::file_type::directory && folder != fs::file_type::not_found) putAside(generations);
  const fs::file_type file = fs::symlink_status(manifest, none).type();
  const bool isTooLarge = file == fs::file_type::regular && fs::file_size(manifest, none) > kMaxManifestBytes;
  if (isTooLarge || (file != fs::file_type::regular && file != fs::file_type::not_found)) putAside(manifest);
}

/// Without a manifest the vault was most likely the generation that was written to last.
std::optional<std::string> Vault::lastChangedGeneration() {
  std::optional<std::string> last;
  std::pair<std::int64_t, std::int64_t> changed;
  for (const std::string& generation : generationNames()) {
    const auto file = ports_.files.identity(generationFolder(generation) / kSecretsFile);
    if (!file) continue;
    const std::pair at(file->changedSeconds, file->changedNanoseconds);
    if (last && at < changed) continue;
    last = generation;
    changed = at;
  }
  return last;
}

void Vault::stageContents(const Restoration& restoration, const VaultContents& contents, const Progress& progress) {
  NamespacedSecretStore staged(ports_.store, restoration.generation);
  const auto total = static_cast<std::int64_t>(contents.values.size());
  std::int64_t done = 0;
  for (const SecretValueEntry& entry : contents.values) {
    if (progress) progress(done++, total);
    nextBoundary();
    staged.store(accountOf(entry.secretId, entry.version), entry.value);
  }
  const fs::path folder = generationFolder(restoration.generation);
  nextBoundary();
  ports_.files.makeFolder(folder);
  const auto write = [&](std::string_view name, std::span<const std::uint8_t> bytes) REQUIRES(lock_) {
    nextBoundary();
    ports_.files.writeAtomically(folder / name, bytes);
  };
  const auto seal = [&](std::string_view name, const base::SecretText& text) REQUIRES(lock_) {
    write(name, sealFile(restoration.key, {restoration.generation, name}, text.view()));
  };
  seal(kSecretsFile, encodeSecrets(contents.secrets));
  seal(kProjectsFile, encodeProjects(contents.projects));
  if (contents.cloudCache) seal(kCloudCacheFile, *contents.cloudCache);
  if (!contents.audit.empty()) write(kAccessLogFile, linesOf(contents.audit).bytes());
  if (progress) progress(total, total);
}

/// Reads back all that was staged: nothing is taken on trust before it becomes the vault.
bool Vault::isStaged(const Restoration& restoration, const VaultContents& contents) {
  const fs::path folder = generationFolder(restoration.generation);
  const auto textOf = [&](std::string_view name) -> std::optional<base::SecretText> {
    const auto file = ports_.files.read(folder / name);
    if (!file) return std::nullopt;
    return openFile(restoration.key, {restoration.generation, name}, file->bytes);
  };
  const auto secretsText = textOf(kSecretsFile), projectsText = textOf(kProjectsFile);
  if (!secretsText || !projectsText) return false;
  const auto secrets = decodeSecrets(secretsText->view());
  const auto projects = decodeProjects(projectsText->view());
  const auto* const readSecrets = std::get_if<std::vector<Secret>>(&secrets);
  const auto* const readProjects = std::get_if<std::vector<Project>>(&projects);
  if (readSecrets == nullptr || *readSecrets != contents.secrets) return false;
  if (readProjects == nullptr || *readProjects != contents.projects) return false;
  if (contents.cloudCache) {
    const auto cache = textOf(kCloudCacheFile);
    if (!cache || cache->view() != contents.cloudCache->view()) return false;
  }
  if (readLog(ports_.files, folder) != contents.audit) return false;
  NamespacedSecretStore staged(ports_.store, restoration.generation);
  return std::all_of(contents.values.begin(), contents.values.end(), [&](const SecretValueEntry& entry) {
    return staged.read(accountOf(entry.secretId, entry.version)).sameAs(entry.value.view());
  });
}

/// Makes the generation the active one, opens it, and goes back when it does not open.
void Vault::switchTo(const Restoration& restoration) {
  const auto now = ports_.files.read(directory_ / kManifestFile, kMaxManifestBytes);
  if (now.has_value() != restoration.before.has_value() || (now && now->bytes != *restoration.before)) {
    throw VaultError(std::string(sentence::kActiveVaultChanged));
  }
  Manifest manifest;
  manifest.current = restoration.generation;
  manifest.previous = restoration.previous;
  if (restoration.manifest) manifest.cancelledMigrations = restoration.manifest->cancelledMigrations;
  const fs::path kept = putJournalAside(manifest.previous);
  nextBoundary();
  try {
    ports_.files.writeAtomically(directory_ / kManifestFile, encodeManifest(manifest).bytes());
  } catch (const base::FileError&) {
    // It may have been replaced and only the sync behind it have failed. The caller is told that nothing changed.
    switchBack(restoration, kept);
    throw;
  }
  nextBoundary();
  reopen();
  if (storageFailure_) {
    base::diagnose("vault", "the restored vault does not open: " + *storageFailure_);
    switchBack(restoration, kept);
    reopen();
    throw VaultError(std::string(sentence::kNotVerified));
  }
  nextBoundary();
  if (!restoration.manifest) return;  // nobody can tell what may go
  try {
    removeUnusedGenerations();
    for (const std::string& account : orphanAccounts()) {
      nextBoundary();
      ports_.store.remove(account);
    }
  } catch (const base::Error& error) {
    base::diagnose("vault", "a vault that was replaced twice stays until the next collection: " + error.sentence());
  }
}

/// A change of the old vault that was cut short is the old vault's to undo, when it is gone back to. Returns where its
/// journal went; empty when there is none.
fs::path Vault::putJournalAside(const std::optional<std::string>& generation) {
  const fs::path journal = directory_ / kJournalFile;
  if (!ports_.files.identity(journal)) return {};
  nextBoundary();
  if (!generation || ports_.files.list(generationFolder(*generation)).empty()) {
    ports_.files.remove(journal);  // what it could undo is gone, or nobody can tell where it was
    return {};
  }
  fs::path kept = generationFolder(*generation) / kJournalFile;
  ports_.files.rename(journal, kept);
  return kept;
}

void Vault::switchBack(const Restoration& restoration, const fs::path& keptJournal) {
  // One that lies there now came with the generation that is left again.
  const fs::path journal = directory_ / kJournalFile;
  if (ports_.files.identity(journal)) {
    ports_.files.rename(journal, generationFolder(restoration.generation) / kJournalFile);
  }
  if (restoration.before) {
    ports_.files.writeAtomically(directory_ / kManifestFile, *restoration.before);
  } else {
    ports_.files.remove(directory_ / kManifestFile);
  }
  if (!keptJournal.empty() && ports_.files.identity(keptJournal)) {
    ports_.files.rename(keptJournal, journal);
  }
}

/// What was staged is of no use to anybody. What cannot be removed is left to the next collection. Unless the new
/// generation may be the active one all the same: then it stays.
bool Vault::dropStaged(const Restoration& restoration) {
  bool isOfNoUse = false;
  try {
    const auto contents = ports_.files.read(directory_ / kManifestFile, kMaxManifestBytes);
    const auto decoded = decodeManifest(contents ? base::textOf(contents->bytes) : std::string_view());
    const auto* const manifest = std::get_if<Manifest>(&decoded);
    if (manifest != nullptr && manifest->current == restoration.generation) return false;
    isOfNoUse = true;
    removeGenerationFiles(restoration.generation);
    NamespacedSecretStore staged(ports_.store, restoration.generation);
    for (const std::string& account : staged.accounts()) staged.remove(account);
  } catch (const base::Error& error) {
    base::diagnose("vault", "what a failed restore staged stays until the next collection: " + error.sentence());
  }
  return isOfNoUse;
}

/// What cannot be removed stays in nobody's way: it is said, and tried again the next time.
void Vault::removeGenerationFiles(const std::string& generation) {
  const fs::path folder = generationFolder(generation);
  const auto remove = [&](std::string_view name) {
    try {
      ports_.files.remove(folder / name);
    } catch (const base::FileError& error) {
      base::diagnose("vault", "a file of a vault that was replaced stays: " + error.sentence());
    }
  };
  // The file that names the values goes last: without it nobody would know whose they are.
  for (const std::string& name : ports_.files.list(folder)) {
    if (name != kSecretsFile) remove(name);
  }
  remove(kSecretsFile);
  std::error_code kept;
  fs::remove(folder, kept);
}

void Vault::removeUnusedGenerations() {
  const auto contents = ports_.files.read(directory_ / kManifestFile, kMaxManifestBytes);
  const auto decoded = decodeManifest(contents ? base::textOf(contents->bytes) : std::string_view());
  const auto* const manifest = std::get_if<Manifest>(&decoded);
  if (manifest == nullptr) return;  // nobody can tell which are in use
  for (const std::string& generation : generationNames()) {
    if (generation == manifest->current || generation == manifest->previous) continue;
    // Beside a manifest without a step back, one that no restore made may be what a lost manifest named.
    if (!isRestoredGeneration(generation) && !manifest->previous) continue;
    removeGenerationFiles(generation);
  }
}

/// A restore put the journal of this generation aside.
void Vault::reclaimJournal() {
  const fs::path kept = fileOf(kJournalFile);
  if (ports_.files.identity(kept) && !ports_.files.identity(directory_ / kJournalFile)) {
    ports_.files.rename(kept, directory_ / kJournalFile);
  }
}

bool Vault::canStepBack() const {
  const base::RecursiveLock lock(lock_);
  return previousGeneration_.has_value();
}

void Vault::stepBack() {
  std::vector<std::string> before;
  {
    const base::RecursiveLock lock(lock_);
    if (!previousGeneration_) throw VaultError(std::string(sentence::kNoPrevious));
    before = idsOf(records_);
    try {
      if (!readVaultKey(ports_.store)) throw VaultError(std::string(sentence::kKeyDoesNotOpen));
      Restoration restoration = beginRestoration();
      if (!restoration.manifest || restoration.manifest->current != generation_ ||
          restoration.manifest->previous != previousGeneration_) {
        throw VaultError(std::string(sentence::kActiveVaultChanged));
      }
      if (!ports_.files.identity(generationFolder(*previousGeneration_) / kSecretsFile)) {
        throw VaultError(std::string(sentence::kRestoredFilesMissing));
      }
      restoration.generation = *previousGeneration_;
      switchTo(restoration);
    } catch (const base::FileError& error) {
      throw VaultError(sentence::notRestored(error.sentence()));
    } catch (const SecretStoreError& error) {
      throw VaultError(sentence::notRestored(error.sentence()));
    }
  }
  announceReplaced(before);
}

/// Reads the vault anew, as a start does.
void Vault::reopen() {
  storageFailure_.reset();
  records_.reset();
  verifiedMetadataKey_.reset();
  cancelledMigrationIDs_.clear();
  retiredEnvironmentNames_.clear();
  journalPending_ = false;
  logTailUnsure_ = false;
  openOrFail();
}

void Vault::announceReplaced(const std::vector<std::string>& before) {
  ports_.sessions.revoke(RevokeAll{});
  std::vector<std::string> ids = before;
  {
    const base::RecursiveLock lock(lock_);
    for (std::string& id : idsOf(records_)) ids.push_back(std::move(id));
  }
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  if (!ids.empty()) observers_->changed(ids);
}

}  // namespace sorvane::vault
