#include "base/ids.h"
#include "vault/access_log.h"
#include "vault/accounts.h"
#include "vault/manifest.h"
#include "vault/record_codec.h"
#include "vault/sealed_files.h"
#include "vault/vault.h"
#include "vault/vault_index.h"
#include "vault/vault_sentences.h"
#include "vault/vault_state.h"

namespace sorvane::vault {
namespace {

template <typename T>
T wholeOf(DecodeOutcome<T>&& outcome) {
  if (const auto* const failure = std::get_if<DecodeFailure>(&outcome)) {
    throw VaultError(
        std::string(*failure == DecodeFailure::newerFormat ? sentence::kNewerVersion : sentence::kFileDamaged));
  }
  return std::get<T>(std::move(outcome));
}

}  // namespace

std::optional<std::string> Vault::storageFailure() const {
  const base::RecursiveLock lock(lock_);
  return storageFailure_;
}

std::string Vault::generation() const {
  const base::RecursiveLock lock(lock_);
  return generation_;
}

std::filesystem::path Vault::generationFolder(std::string_view generation) const {
  return directory_ / kGenerationsFolder / generation;
}

std::filesystem::path Vault::fileOf(std::string_view name) const {
  return generationFolder(generation_) / name;
}

std::shared_ptr<const Records> Vault::records() {
  const base::RecursiveLock lock(lock_);
  return currentRecords();
}

void Vault::requireOpen() const {
  if (storageFailure_) throw VaultError(*storageFailure_);
}

void Vault::checkGeneration() {
  const auto identity = ports_.files.identity(directory_ / kManifestFile);
  if (identity && identity == manifestIdentity_) return;
  const auto contents = ports_.files.read(directory_ / kManifestFile, kMaxManifestBytes);
  if (!contents) throw VaultError(std::string(sentence::kActiveVaultChanged));
  const auto decoded = decodeManifest(base::textOf(contents->bytes));
  const Manifest* const manifest = std::get_if<Manifest>(&decoded);
  if (manifest == nullptr || manifest->current != generation_) {
    throw VaultError(std::string(sentence::kActiveVaultChanged));
  }
  manifestIdentity_ = contents->identity;
}

std::shared_ptr<const Records> Vault::currentRecords() {
  requireOpen();
  try {
    if (journalPending_) recoverJournal();
    checkGeneration();
    const bool unchanged = records_ && secretsIdentity_ && projectsIdentity_ &&
                           ports_.files.identity(fileOf(kSecretsFile)) == secretsIdentity_ &&
                           ports_.files.identity(fileOf(kProjectsFile)) == projectsIdentity_;
    if (!unchanged) {
      const auto key = readVaultKey(ports_.store);
      if (!key) throw VaultError(std::string(sentence::kKeyDoesNotOpen));
      records_ = decodeRecords(*key);
    }
  } catch (const base::FileError& error) {
    throw VaultError(sentence::notRead(error.sentence()));
  }
  return records_;
}

std::shared_ptr<Records> Vault::decodeRecords(const crypto::SymmetricKey& key) {
  const auto text = [&](std::string_view name, std::optional<base::FileIdentity>& identity) REQUIRES(lock_) {
    const auto contents = ports_.files.read(fileOf(name));
    if (!contents) {
      throw VaultError(std::string(previousGeneration_ ? sentence::kRestoredFileMissing : sentence::kFileDamaged));
    }
    if (contents->bytes.empty()) throw VaultError(std::string(sentence::kFileDamaged));
    auto opened = openFile(key, {generation_, name}, contents->bytes);
    if (!opened) throw VaultError(std::string(sentence::kKeyDoesNotOpen));
    identity = contents->identity;
    return *std::move(opened);
  };
  auto records = std::make_shared<Records>();
  std::optional<base::FileIdentity> secrets, projects;
  records->secrets = wholeOf(decodeSecrets(text(kSecretsFile, secrets).view()));
  records->projects = wholeOf(decodeProjects(text(kProjectsFile, projects).view()));
  indexSecrets(*records);
  indexProjects(*records);
  secretsIdentity_ = secrets;
  projectsIdentity_ = projects;
  verifiedMetadataKey_ = std::make_unique<VerifiedKey>(VerifiedKey{generation_, crypto::sha256(key.bytes())});
  return records;
}

crypto::SymmetricKey Vault::provenKey() {
  auto key = readVaultKey(ports_.store);
  if (!key) throw VaultError(std::string(sentence::kKeyDoesNotOpen));
  const VerifiedKey present{generation_, crypto::sha256(key->bytes())};
  // Another key than the one that opened the files must not seal them anew: what it cannot open would be lost.
  if (!verifiedMetadataKey_ || *verifiedMetadataKey_ != present) records_ = decodeRecords(*key);
  return *std::move(key);
}

std::string Vault::accountFor(std::string_view secretId, std::int64_t version) const {
  const base::RecursiveLock lock(lock_);
  return valueAccount(generation_, secretId, version);
}

base::SecretText Vault::readValue(const Secret& secret, std::int64_t version) {
  try {
    return ports_.store.read(accountFor(secret.id, version));
  } catch (const SecretStoreError& error) {
    if (error.kind() == SecretStoreError::Case::permissionDenied) {
      throw VaultError(sentence::keychainDenied(version, secret.name));
    }
    throw VaultError(sentence::valueNotFound(version, secret.name));
  }
}

AccessEvent Vault::eventOf(const AccessContext& context) const {
  AccessEvent event;
  event.id = base::randomUuid();
  event.actor = context.actor;
  event.tool = context.tool;
  event.source = context.source;
  event.requestor = context.requestor;
  event.at = ports_.clock.now();
  return event;
}

void Vault::appendEvents(const std::vector<AccessEvent>& events) {
  requireOpen();
  const std::filesystem::path folder = generationFolder(generation_);
  try {
    if (logTailUnsure_) settleLogTail(ports_.files, folder);
    logTailUnsure_ = true;
    appendToLog(ports_.files, folder, events);
    logTailUnsure_ = false;
  } catch (const base::FileError& error) {
    throw VaultError(sentence::notLogged(error.sentence()));
  }
}

}  // namespace sorvane::vault
