#include "vault/vault_change.h"

#include "vault/record_codec.h"
#include "vault/sealed_files.h"
#include "vault/vault_index.h"
#include "vault/vault_observers.h"
#include "vault/vault_sentences.h"

namespace sorvane::vault {

Secret& Vault::Change::secret(std::string_view id) {
  const Secret* const found = records->secretById(id);
  if (found == nullptr) throw VaultError(std::string(sentence::kUnknownSecret));
  return records->secrets[static_cast<std::size_t>(found - records->secrets.data())];
}

Project& Vault::Change::project(std::string_view id) {
  const Project* const found = records->projectById(id);
  if (found == nullptr) throw VaultError(std::string(sentence::kUnknownProject));
  return records->projects[static_cast<std::size_t>(found - records->projects.data())];
}

void Vault::Change::revokeUsers(std::string_view secretId, std::optional<std::int64_t> version) {
  for (const Project* const project : records->projectsUsing(secretId, version))
    revokedEnvironments.insert(project->name);
}

void Vault::Change::revokeFollowers(const Secret& secret) {
  for (const Project* const project : records->projectsUsing(secret.id)) {
    for (const EnvBinding& binding : project->bindings) {
      if (binding.secretId == secret.id && !binding.pinVersion) revokedEnvironments.insert(project->name);
    }
  }
}

Project Vault::Change::touched(Project& project, Date now) {
  project.updatedAt = now;
  projectsChanged = true;
  return project;
}

std::unique_ptr<Vault::Change> Vault::beginChange() {
  auto change = std::make_unique<Change>();
  change->records = std::make_shared<Records>(*currentRecords());
  change->retiredNames = retiredEnvironmentNames_;
  return change;
}

void Vault::commit(Change& change) {
  if (!change.secretsChanged && !change.projectsChanged) return;
  const crypto::SymmetricKey key = provenKey();
  const auto prepare = [&](std::string_view name, const base::SecretText& text,
                           const base::FileIdentity& before) REQUIRES(lock_) {
    change.files.push_back({name, sealFile(key, {generation_, name}, text.view()), before, {}});
  };
  if (change.secretsChanged) prepare(kSecretsFile, encodeSecrets(change.records->secrets), *secretsIdentity_);
  if (change.projectsChanged) prepare(kProjectsFile, encodeProjects(change.records->projects), *projectsIdentity_);
  const bool alone = change.files.size() == 1 && change.values.empty() && change.removedValues.empty();
  try {
    if (alone && !change.alwaysJournalled) {
      commitAlone(change, key);
    } else {
      commitJournalled(change);
    }
  } catch (const base::FileError& error) {
    throw VaultError(sentence::notChanged(error.sentence()));
  }
  adopt(change);
  for (const VersionAccount& account : change.removedValues) removeValue(account);
}

void Vault::commitAlone(Change& change, const crypto::SymmetricKey& key) {
  try {
    writeChangedFiles(change);
  } catch (const base::FileError&) {
    // The file may have been replaced and only the sync behind it have failed. The caller is told that nothing changed.
    const Change::File& file = change.files.front();
    if (ports_.files.identity(fileOf(file.name)) != file.before) {
      const auto text = change.secretsChanged ? encodeSecrets(records_->secrets) : encodeProjects(records_->projects);
      ports_.files.writeAtomically(fileOf(file.name), sealFile(key, {generation_, file.name}, text.view()));
    }
    throw;
  }
}

void Vault::commitJournalled(Change& change) {
  boundary_ = 0;
  for (const Change::Value& value : change.values) change.journal.copies.push_back(value.account);
  for (const Change::File& file : change.files) {
    auto contents = ports_.files.read(fileOf(file.name));
    if (!contents) throw VaultError(std::string(sentence::kActiveVaultChanged));
    change.journal.files.emplace(file.name, std::move(contents->bytes));
  }
  try {
    nextBoundary();
    ports_.files.writeAtomically(directory_ / kJournalFile, encodeJournal(change.journal).bytes());
    for (const Change::Value& value : change.values) {
      nextBoundary();
      ++change.valuesTried;
      ports_.store.store(accountFor(value.account.secretId, value.account.version), value.text);
    }
    writeChangedFiles(change);
    nextBoundary();
    ports_.files.remove(directory_ / kJournalFile);
  } catch (...) {
    rollBack(change);
    throw;
  }
}

void Vault::writeChangedFiles(Change& change) {
  const bool journalled = !change.journal.files.empty();
  for (Change::File& file : change.files) {
    if (journalled) nextBoundary();
    file.after = ports_.files.writeAtomically(fileOf(file.name), file.sealed);
  }
}

void Vault::rollBack(Change& change) {
  // What goes wrong here is not thrown: the failure that brought us here is what the caller must hear. The journal
  // stays and is dealt with before the next operation, or at the next open.
  try {
    for (const Change::File& file : change.files) {
      // Compared on disk: a write may fail after its file was replaced.
      if (ports_.files.identity(fileOf(file.name)) == file.before) continue;
      nextBoundary();
      ports_.files.writeAtomically(fileOf(file.name), change.journal.files.at(std::string(file.name)));
    }
    for (std::size_t i = 0; i < change.valuesTried; ++i) removeValue(change.values[i].account);
    nextBoundary();
    ports_.files.remove(directory_ / kJournalFile);
  } catch (...) {
    journalPending_ = true;
  }
}

void Vault::adopt(Change& change) {
  if (change.secretsChanged) indexSecrets(*change.records);
  if (change.projectsChanged) indexProjects(*change.records);
  for (const Change::File& file : change.files) {
    (file.name == kSecretsFile ? secretsIdentity_ : projectsIdentity_) = file.after;
  }
  records_ = change.records;
}

void Vault::nextBoundary() {
  if (reversalWriteBoundary) reversalWriteBoundary(++boundary_);
}

void Vault::announce(const Change& change) {
  if (!change.revokedEnvironments.empty()) ports_.sessions.revoke(RevokeEnvironments{change.revokedEnvironments});
  if (change.created) observers_->created(change.created->first, change.created->second);
  if (change.removedSecret) observers_->removed(*change.removedSecret);
  if (!change.changedSecrets.empty()) observers_->changed(change.changedSecrets);
}

}  // namespace sorvane::vault
