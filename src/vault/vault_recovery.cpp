#include <algorithm>

#include "base/diagnostics.h"
#include "vault/journal.h"
#include "vault/manifest.h"
#include "vault/record_codec.h"
#include "vault/sealed_files.h"
#include "vault/vault.h"
#include "vault/vault_sentences.h"

namespace sorvane::vault {
namespace {

[[noreturn]] void refuseFiles() {
  throw VaultError(std::string(sentence::kInvalidJournalFiles));
}

/// The secrets that a sealed file holds; nullopt when it does not open or decode.
std::optional<std::vector<Secret>> secretsIn(const crypto::SymmetricKey& key, const SealedName& name,
                                             std::span<const std::uint8_t> sealed) {
  const auto text = openFile(key, name, sealed);
  if (!text) return std::nullopt;
  auto decoded = decodeSecrets(text->view());
  if (!std::holds_alternative<std::vector<Secret>>(decoded)) return std::nullopt;
  return std::get<std::vector<Secret>>(std::move(decoded));
}

bool holdsProjects(const crypto::SymmetricKey& key, const SealedName& name, std::span<const std::uint8_t> sealed) {
  const auto text = openFile(key, name, sealed);
  return text && std::holds_alternative<std::vector<Project>>(decodeProjects(text->view()));
}

}  // namespace

Vault::Names Vault::generationNames() const {
  Names names = ports_.files.list(directory_ / kGenerationsFolder);
  std::erase_if(names, [](const std::string& name) { return !isGenerationName(name); });
  return names;
}

std::optional<Vault::Accounts> Vault::namedAccounts(const crypto::SymmetricKey& key,
                                                    const std::map<std::string, base::Bytes>& replaced) {
  Accounts accounts;
  for (const std::string& generation : generationNames()) {
    const SealedName name{generation, kSecretsFile};
    std::optional<std::vector<Secret>> secrets;
    const auto instead = generation == generation_ ? replaced.find(std::string(kSecretsFile)) : replaced.end();
    if (instead != replaced.end()) {
      secrets = secretsIn(key, name, instead->second);
    } else {
      const auto contents = ports_.files.read(generationFolder(generation) / kSecretsFile);
      if (!contents) continue;
      secrets = secretsIn(key, name, contents->bytes);
    }
    if (!secrets) return std::nullopt;
    for (const Secret& secret : *secrets) {
      for (const SecretVersion& version : secret.versions) {
        if (version.status != VersionStatus::purged)
          accounts.insert(valueAccount(generation, secret.id, version.version));
      }
    }
  }
  return accounts;
}

std::int64_t Vault::highestVersion(const Secret& secret) {
  std::int64_t highest = 0;
  const auto raise = [&](const Secret& from) {
    for (const SecretVersion& version : from.versions) highest = std::max(highest, version.version);
  };
  raise(secret);
  const base::RecursiveLock lock(lock_);
  try {
    const Names generations = generationNames();
    if (generations.size() < 2) return highest;
    const auto key = readVaultKey(ports_.store);
    for (const std::string& generation : generations) {
      if (generation == generation_ || !key) continue;
      const auto contents = ports_.files.read(generationFolder(generation) / kSecretsFile);
      const auto secrets = contents ? secretsIn(*key, {generation, kSecretsFile}, contents->bytes) : std::nullopt;
      if (!secrets) continue;
      for (const Secret& other : *secrets) {
        if (other.id == secret.id) raise(other);
      }
    }
  } catch (const base::FileError& error) {
    throw VaultError(sentence::notRead(error.sentence()));
  }
  return highest;
}

/// Believes the journal only as far as the vault key vouches for it, before anything is touched.
void Vault::requireTrustworthy(const LocalReversalJournal& journal) {
  const auto key = readVaultKey(ports_.store);
  if (!key) throw VaultError(std::string(sentence::kKeyDoesNotOpen));
  for (const auto& [name, sealed] : journal.files) {
    const SealedName sealedName{generation_, name};
    const bool whole = name == kSecretsFile ? secretsIn(*key, sealedName, sealed).has_value()
                                            : name == kProjectsFile && holdsProjects(*key, sealedName, sealed);
    if (!whole) refuseFiles();
  }
  if (journal.copies.empty()) return;
  const auto named = namedAccounts(*key, journal.files);
  if (!named) refuseFiles();
  for (const VersionAccount& copy : journal.copies) {
    const bool isNamed = named->contains(accountFor(copy.secretId, copy.version));
    if (isNamed || parseVersionAccount(accountOf(copy.secretId, copy.version)) != copy) refuseFiles();
  }
}

void Vault::recoverJournal() {
  const std::filesystem::path path = directory_ / kJournalFile;
  if (const auto contents = ports_.files.read(path)) {
    const auto journal = decodeJournal(base::textOf(contents->bytes));
    if (!journal) throw VaultError(std::string(sentence::kInvalidJournal));
    boundary_ = 0;
    if (!journal->committed) {
      requireTrustworthy(*journal);
      for (const auto& [name, sealed] : journal->files) {
        nextBoundary();
        ports_.files.writeAtomically(fileOf(name), sealed);
      }
      for (const VersionAccount& copy : journal->copies) removeValue(copy);
    }
    nextBoundary();
    ports_.files.remove(path);
  }
  journalPending_ = false;
}

void Vault::removeValue(const VersionAccount& account) {
  nextBoundary();
  try {
    ports_.store.remove(accountFor(account.secretId, account.version));
  } catch (const SecretStoreError& error) {
    base::diagnose("vault", "a value that is no longer used stays until the next collection: " + error.sentence());
  }
}

}  // namespace sorvane::vault
