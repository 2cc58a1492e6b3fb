#pragma once

#include <utility>

#include "vault/journal.h"
#include "vault/vault.h"

namespace sorvane::vault {

/// Change is one change while it is made: an editable copy of the records, what goes into and out of the store with it,
/// and what is told afterwards. Only the vault's own files see it.
struct Vault::Change {
  struct Value {
    VersionAccount account;
    base::SecretText text;
  };

  std::shared_ptr<Records> records;
  /// Keys of the names that no environment may take.
  std::set<std::string> retiredNames;
  /// Which files are written anew.
  bool secretsChanged = false;
  bool projectsChanged = false;
  /// Stored before the metadata that names them is written.
  std::vector<Value> values;
  /// Removed once the metadata no longer names them; what cannot be removed is left to the next collection.
  std::vector<VersionAccount> removedValues;
  /// A single file is journalled all the same.
  bool alwaysJournalled = false;

  // Told when the change is on disk.
  std::set<std::string> revokedEnvironments;
  std::vector<std::string> changedSecrets;
  std::optional<std::pair<std::string, std::string>> created;  ///< id and name
  std::optional<std::string> removedSecret;

  // Kept by the commit.
  struct File {
    std::string_view name;
    base::Bytes sealed;
    base::FileIdentity before;
    std::optional<base::FileIdentity> after;
  };
  std::vector<File> files;
  LocalReversalJournal journal;
  std::size_t valuesTried = 0;

  /// The record to edit. Throws VaultError for an unknown id.
  Secret& secret(std::string_view id);
  Project& project(std::string_view id);
  /// Notes the change of an environment and returns a copy of it.
  Project touched(Project& project, Date now);
  /// The trimmed name, which no other environment has and no retired cloud grant reserves.
  std::string projectName(std::string_view name, const Project* self) const;
  /// Gives variables that bear the old name of the secret the new one, wherever they are bound to it.
  void renameVariables(const Secret& secret, const std::string& name, Date now);
  /// Notes that the environments that use the secret, or this version of it, lose their sessions.
  void revokeUsers(std::string_view secretId, std::optional<std::int64_t> version = {});
  /// The same for those that get another value when the secret's current version moves: they have not pinned one.
  void revokeFollowers(const Secret& secret);
};

/// Runs one change: `edit` is called with the Change under the lock and returns what the operation returns.
template <typename Edit>
auto Vault::change(const Edit& edit) {
  std::unique_ptr<Change> pending;
  const auto result = [&] {
    const base::RecursiveLock lock(lock_);
    pending = beginChange();
    auto edited = edit(*pending);
    commit(*pending);
    return edited;
  }();
  announce(*pending);
  return result;
}

}  // namespace sorvane::vault
