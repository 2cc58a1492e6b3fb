#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/clock.h"
#include "base/error.h"
#include "base/files.h"
#include "base/mutex.h"
#include "crypto/key.h"
#include "vault/env_export.h"
#include "vault/protected_keys.h"
#include "vault/records.h"
#include "vault/revocation.h"
#include "vault/secret_store.h"

namespace sorvane::vault {

/// VaultError carries a sentence that is shown as it stands.
class VaultError : public base::Error {
 public:
  using Error::Error;
};

/// Records is one decoded state of the vault's metadata. Immutable; kept and shared while the files are unchanged.
struct Records {
  std::vector<Secret> secrets;    ///< in order of creation
  std::vector<Project> projects;  ///< in order of creation

  /// nullptr when there is none. Names are compared in NFC, case-sensitively, after trimming.
  const Secret* secretById(std::string_view id) const;
  const Secret* secretByName(std::string_view name) const;
  const Project* projectById(std::string_view id) const;
  const Project* projectByName(std::string_view name) const;
  /// Environments that bind the secret, in order; with `version`, only those whose binding selects that version.
  std::vector<const Project*> projectsUsing(std::string_view secretId, std::optional<std::int64_t> version = {}) const;

  // Filled by the vault when the state is decoded; the keys of names are those of nameKey.
  using Index = std::unordered_map<std::string, std::size_t>;
  Index secretIndexById, secretIndexByName, projectIndexById, projectIndexByName;
  /// Positions in `projects`, ascending, by the id of the secret they bind.
  std::unordered_map<std::string, std::vector<std::size_t>> projectIndexesBySecret;
};

/// What names are compared by: trimmed of Unicode white space, in NFC, case kept.
std::string nameKey(std::string_view name);

/// Who takes values out, for the access log.
struct AccessContext {
  std::string actor;
  std::string tool;
  std::string source;
  std::optional<std::string> requestor;
};

struct NewVersion {
  base::SecretText value;
  std::optional<std::string> label;
  std::optional<Date> expiresAt;
  std::optional<std::vector<std::string>> allowedDeploymentTargets;
};

struct NewSecret {
  std::string name;
  std::string description;
  std::vector<std::string> tags;
  std::optional<std::string> icon;
  bool isFavorite = false;
  NewVersion first;
};

/// Absent fields stay as they are; an inner nullopt clears the field.
struct SecretEdit {
  std::optional<std::string> description;
  std::optional<std::vector<std::string>> tags;
  std::optional<std::optional<std::string>> icon;
  std::optional<bool> isFavorite;
};

struct VersionEdit {
  std::optional<std::optional<std::string>> label;
  std::optional<std::optional<Date>> expiresAt;
};

struct NewEnvironment {
  std::string name;
  std::string description;
  std::optional<std::string> rootPath;
  std::optional<std::string> deploymentTarget;
};

struct EnvironmentEdit {
  std::optional<std::string> description;
  std::optional<std::optional<std::string>> rootPath;
};

/// One variable as a command gets it.
struct RenderedVariable {
  std::string name;
  base::SecretText value;
};

/// A rendered environment: the lines for a file, and the same values by themselves for a command.
struct RenderedEnvironment {
  std::string environmentId;
  std::string environment;
  std::optional<std::string> rootPath;
  std::optional<std::string> deploymentTarget;
  RenderResult result;
  std::vector<RenderedVariable> variables;
  /// Names of run-control variables that this environment may deliver to a command.
  std::vector<std::string> runControlAllowed;
};

/// A variable whose key the proxy stands in for.
struct ProxyRenderedKey {
  std::string variable;
  std::string secretId;
  std::int64_t version = 0;
  ProxyProvider provider = ProxyProvider::anthropic;
  base::SecretText value;    ///< the real key; empty when only looked at
  std::size_t position = 0;  ///< where its line belongs in the lines, once those of the keys before it are in
};

/// An environment without its protected keys, and those keys by themselves.
struct ProxySplitRender {
  RenderedEnvironment rendered;
  std::vector<ProxyRenderedKey> keys;
  /// Variables that held a protected key before and are bound to another one now, which is to become protected.
  std::map<std::string, ProxyProvider> adopt;
};

/// Whether a render hands values out, and is logged, or only tells what it would hold; `keysOnly` hands out nothing but
/// what the proxy stands in for.
enum class RenderValues { deliver, keysOnly, redact };

/// What stands in the place of a value that is not shown.
inline constexpr std::string_view kRedacted = "‹redacted›";

/// What a reveal for an agent goes by: the target of the environment it names, and the one it declares.
struct DeclaredTargets {
  std::optional<std::string> environment;
  std::optional<std::string> requested;
};

struct Selection {
  std::string secretId;
  std::string variable;
};

/// How far a long operation is; called between items, may throw to stop it there.
using Progress = std::function<void(std::int64_t done, std::int64_t total)>;

struct LogRepair {
  std::int64_t kept = 0;
  std::int64_t moved = 0;
  std::filesystem::path movedTo;  ///< empty when nothing was moved
};

/// Keys of providers, by secret id.
using ProviderKeys = std::vector<std::pair<std::string, ProxyProvider>>;

class SealedSettings;
struct VaultContents;
struct LocalReversalJournal;
struct VersionAccount;

/// Vault owns the vault directory and the credential store: the one gate through which records and values are read and
/// changed. Every operation runs under one recursive lock and is safe from any thread; callers see whole changes only.
///
/// Opening never throws for damaged contents: `storageFailure` then holds the sentence, and every other operation
/// throws VaultError with it. Failures are VaultError, DeploymentPolicyError or SecretStoreError; after any of them the
/// files are as they were. Records hold no values; values leave through `reveal`, `render`, `renderForProxy` and
/// `exportSecrets` only, each logged first. A protected key, each of its versions, and a value that contains one leave
/// through `renderForProxy` alone; the others throw ProtectionError.
class Vault {
 public:
  struct Ports {
    base::Files& files;
    EnumerableSecretStore& store;
    const base::Clock& clock;
    SessionRevoker& sessions;
  };

  /// Opens the vault in `directory`, or makes a new one when the directory holds none.
  Vault(std::filesystem::path directory, Ports ports);
  ~Vault();
  Vault(const Vault&) = delete;
  Vault& operator=(const Vault&) = delete;

  std::optional<std::string> storageFailure() const;
  std::string generation() const;
  const std::filesystem::path& directory() const { return directory_; }

  /// The present records; cheap while the files are unchanged.
  std::shared_ptr<const Records> records();

  // Secrets. Each returns the record as it is afterwards. Ids that name nothing throw VaultError.
  Secret createSecret(NewSecret secret);
  Secret editSecret(std::string_view id, const SecretEdit& edit);
  Secret editVersion(std::string_view id, std::int64_t version, const VersionEdit& edit);
  enum class Rebind { no, yes };
  /// With Rebind::yes variables that bear the old name in bindings of this secret get the new one.
  Secret renameSecret(std::string_view id, std::string_view name, Rebind rebind);
  Secret addVersion(std::string_view id, NewVersion version);
  /// Copies an earlier version's value into a new version with its label, expiry and targets, and makes that current.
  Secret restoreVersion(std::string_view id, std::int64_t version);
  /// nullopt lifts the limit.
  Secret limitVersion(std::string_view id, std::int64_t version,
                      const std::optional<std::vector<std::string>>& targets);
  /// Bindings to the secret stay and are reported as missing by renders.
  void deleteSecret(std::string_view id);

  // Environments.
  Project createEnvironment(const NewEnvironment& environment);
  Project editEnvironment(std::string_view id, const EnvironmentEdit& edit);
  Project renameEnvironment(std::string_view id, std::string_view name);
  Project setTarget(std::string_view id, const std::optional<std::string>& target);
  /// Adds the variable at the end, or replaces the binding of that name in its place.
  Project bind(std::string_view id, const EnvBinding& binding);
  Project unbind(std::string_view id, std::string_view envVarName);
  /// Moves a variable to the zero-based `position` (clamped to the end).
  Project moveBinding(std::string_view id, std::string_view envVarName, std::size_t position);
  void deleteEnvironment(std::string_view id);

  // Values.
  /// Whether the secret's current version holds exactly this value; nothing leaves the vault. False for an unknown id
  /// and a value that cannot be read.
  bool currentValueIs(std::string_view secretId, const base::SecretText& value);
  /// The same of any version.
  bool valueIs(std::string_view secretId, std::int64_t version, const base::SecretText& value);
  /// Without `version` the current one. With `declared` the deployment policy decides; the owner's own look passes
  /// none.
  RevealResult reveal(std::string_view secretId, std::optional<std::int64_t> version,
                      const std::optional<DeclaredTargets>& declared, const AccessContext& context);
  /// The target policy is asked for every version before any value leaves; what cannot be delivered is a warning.
  RenderedEnvironment render(std::string_view projectId, const std::optional<std::string>& requestedTarget,
                             RenderValues values, const AccessContext& context);
  /// The same with the protected keys split off. Throws ProtectionError where a key must be held back. With
  /// `deliver` the keys are logged like the other values, and what is to become protected does.
  ProxySplitRender renderForProxy(std::string_view projectId, const std::optional<std::string>& requestedTarget,
                                  RenderValues values, const AccessContext& context);
  std::vector<base::SecretText> exportSecrets(const std::vector<Selection>& selection, const AccessContext& context);
  /// Every environment, each rendered for its own target, or refused with its reason.
  std::vector<Exported> exportAll(const AccessContext& context);

  // Protected keys (vault_protection.cpp).
  /// What is protected, checked against what is stored.
  ProtectedKeys::Known protection();
  /// Throws ProtectionError for a protected key, before anybody is asked about it.
  void requireUnprotected(std::string_view secretId);
  /// The provider that the secret's value, its name or its variables tell; nullopt when none does.
  std::optional<ProxyProvider> recognisedProvider(std::string_view secretId);
  /// Ends the task sessions of every environment that delivers the key, by itself or inside another value.
  void protectSecret(std::string_view secretId, ProxyProvider provider);
  void unprotectSecret(std::string_view secretId);
  /// The proxy's own options as JSON text.
  void setProxyOptions(const std::string& options);
  /// What is known of settings that were removed or changed becomes the settings.
  void confirmProtection();

  // Access log.
  void log(const std::vector<AccessEvent>& events);
  /// One event that concerns no value, made now.
  void log(const AccessContext& context, const std::optional<std::string>& projectId = {});
  /// One event, made now, for each value that is handed out again after a render took it out; one without a value when
  /// there are none.
  void logDelivery(const AccessContext& context, const std::string& projectId,
                   const std::vector<DeliveredVersion>& delivered);
  /// Throws VaultError "The audit log could not be read, so usage is unavailable." when a line does not decode.
  std::vector<AccessEvent> accessLog();
  /// Moves lines that do not decode into a file beside the log.
  LogRepair repairAccessLog();

  /// Purges versions retired more than `days` days ago and removes values that no record names.
  VaultGcReport collectGarbage(std::int64_t days, const Progress& progress = {});

  /// All that the vault holds, for a backup; every value is logged before this returns. Throws UnreadableValue and
  /// UnreadableHistory (vault_contents.h): nothing left the vault then.
  VaultContents contents(const AccessContext& context, const Progress& progress = {});
  /// Puts `contents` in the place of the vault, whether that can be opened or not, as a generation of its own with its
  /// own values; the present one stays as the one step back. Ends every task session. After a failure, and after the
  /// process ended anywhere in between, the vault is the old one or the new one, whole.
  /// `protect` names keys of `contents`, by secret id: they are protected before the vault is replaced, since a program
  /// could get them in between. What stands in the way of that does not stop the restore.
  void restore(const VaultContents& contents, const Progress& progress = {}, const ProviderKeys& protect = {});
  /// Swaps the present generation and the one before the last restore. Ends every task session.
  void stepBack();
  bool canStepBack() const;

  /// The sealed settings of this vault.
  SealedSettings& settings();

  // Observers, called after the change is on disk with no lock held. The returned token unregisters.
  using ObserverToken = std::string;
  ObserverToken observeSecretChanges(std::function<void(const std::vector<std::string>& ids)> observer);
  ObserverToken observeSecretCreated(std::function<void(const std::string& id, const std::string& name)> observer);
  ObserverToken observeSecretRemoved(std::function<void(const std::string& id)> observer);
  /// Told the ids of the environments in which a value became protected or stopped being so; none when only the
  /// proxy's options changed.
  ObserverToken observeProtection(std::function<void(const std::set<std::string>& environments)> observer);
  void stopObserving(const ObserverToken& token);

  /// Called with a count before every write of a journalled change; a test throws from it, or ends the process there.
  std::function<void(int boundary)> reversalWriteBoundary;

 private:
  struct Change;
  struct VerifiedKey;
  class Observers;
  using Names = std::vector<std::string>;

  // Opening (vault_open.cpp). Each throws what becomes the storage failure.
  void openOrFail() REQUIRES(lock_);
  void open() REQUIRES(lock_);
  void create() REQUIRES(lock_);
  bool holdsRemains() REQUIRES(lock_);
  void removeStrayFiles() REQUIRES(lock_);
  void loadCloudCache() REQUIRES(lock_);

  // The journal (vault_recovery.cpp).
  void recoverJournal() REQUIRES(lock_);
  void requireTrustworthy(const LocalReversalJournal& journal) REQUIRES(lock_);
  Names generationNames() const REQUIRES(lock_);
  using Accounts = std::unordered_set<std::string>;
  /// Accounts whose values the metadata of any generation names. `replaced` stands in for files of the present
  /// generation. nullopt when one of them cannot be read, so that nobody can tell.
  std::optional<Accounts> namedAccounts(const crypto::SymmetricKey& key,
                                        const std::map<std::string, base::Bytes>& replaced) REQUIRES(lock_);
  /// The highest number that a version of the secret has in any generation: a number is never used twice.
  std::int64_t highestVersion(const Secret& secret);

  // Reading (vault_read.cpp). These are what the delivery of values builds on.
  void requireOpen() const REQUIRES(lock_);
  /// The present records, checked to be those of the active vault. Throws VaultError.
  std::shared_ptr<const Records> currentRecords() REQUIRES(lock_);
  /// The value of a version. Throws VaultError with the sentence for a denied or an absent value. Purged versions are
  /// the caller's to refuse.
  base::SecretText readValue(const Secret& secret, std::int64_t version);
  /// Writes all events with one append, synced, before it returns; throws VaultError when that fails: no value may
  /// leave then.
  void appendEvents(const std::vector<AccessEvent>& events) REQUIRES(lock_);
  /// Where the present generation keeps the value.
  std::string accountFor(std::string_view secretId, std::int64_t version) const;
  /// An event made now, without the ids of what it concerns.
  AccessEvent eventOf(const AccessContext& context) const;

  void checkGeneration() REQUIRES(lock_);
  std::shared_ptr<Records> decodeRecords(const crypto::SymmetricKey& key) REQUIRES(lock_);
  /// The vault key, proven to open the present generation.
  crypto::SymmetricKey provenKey() REQUIRES(lock_);
  std::filesystem::path fileOf(std::string_view name) const REQUIRES(lock_);
  std::filesystem::path generationFolder(std::string_view generation) const;

  // Changing (vault_change.h and .cpp).
  template <typename Edit>
  auto change(const Edit& edit);
  std::unique_ptr<Change> beginChange() REQUIRES(lock_);
  void commit(Change& change) REQUIRES(lock_);
  void commitAlone(Change& change, const crypto::SymmetricKey& key) REQUIRES(lock_);
  void commitJournalled(Change& change) REQUIRES(lock_);
  void writeChangedFiles(Change& change) REQUIRES(lock_);
  void rollBack(Change& change) REQUIRES(lock_);
  /// Removes a value that no record names. When that fails it is left to the next collection.
  void removeValue(const VersionAccount& account) REQUIRES(lock_);
  void adopt(Change& change) REQUIRES(lock_);
  void nextBoundary() REQUIRES(lock_);
  void announce(const Change& change);

  // Delivery (vault_delivery.cpp).
  enum class KeySplit { none, split };
  struct RenderKind {
    RenderValues values;
    KeySplit split;
  };
  void renderInto(ProxySplitRender& split, std::string_view projectId,
                  const std::optional<std::string>& requestedTarget, RenderKind kind, const AccessContext& context);

  // Protected keys (vault_protection.cpp).
  class HoldBack;
  /// Environments that deliver one of the values, by itself or inside another.
  struct Delivering {
    std::set<std::string> names, ids;
  };
  Delivering environmentsDelivering(const Secret& secret) REQUIRES(lock_);
  /// Ends the sessions of the environments and tells observers. Without the lock.
  void tellProtection(const Delivering& delivering);
  /// Every version's value. Throws VaultError when the store holds one back.
  std::vector<base::SecretText> valuesOf(const Secret& secret);
  /// Remembers the variables of a render's keys, and protects those that are to become so.
  Delivering adopt(const ProxySplitRender& split) REQUIRES(lock_);
  /// Saves the edited settings when they differ.
  void editProtection(const std::function<void(LocalProxySettings&)>& edit);
  /// Protects keys of a vault that is not there yet; returns the settings before, or null when nothing was done.
  std::shared_ptr<const LocalProxySettings> protectAhead(const VaultContents& contents, const ProviderKeys& keys);
  void undoProtection(const std::shared_ptr<const LocalProxySettings>& before);

  // The collection of garbage (vault_gc.cpp).
  struct Sweep;
  void beginSweep(Sweep& sweep) REQUIRES(lock_);
  /// Accounts of values that no generation names; none when a generation cannot be read.
  Names orphanAccounts() REQUIRES(lock_);
  void removeSwept(Sweep& sweep, const Progress& progress) REQUIRES(lock_);
  void keepUnswept(const Sweep& sweep) REQUIRES(lock_);
  VaultGcReport reportOf(const Sweep& sweep) REQUIRES(lock_);

  // Restoring (vault_restore.cpp).
  struct Restoration;
  Restoration beginRestoration() REQUIRES(lock_);
  void putObstaclesAside() REQUIRES(lock_);
  std::optional<std::string> lastChangedGeneration() REQUIRES(lock_);
  void stageContents(const Restoration& restoration, const VaultContents& contents, const Progress& progress)
      REQUIRES(lock_);
  bool isStaged(const Restoration& restoration, const VaultContents& contents) REQUIRES(lock_);
  /// False when it may have become the vault, and stays.
  bool dropStaged(const Restoration& restoration) REQUIRES(lock_);
  void switchTo(const Restoration& restoration) REQUIRES(lock_);
  std::filesystem::path putJournalAside(const std::optional<std::string>& generation) REQUIRES(lock_);
  void switchBack(const Restoration& restoration, const std::filesystem::path& keptJournal) REQUIRES(lock_);
  void reopen() REQUIRES(lock_);
  void reclaimJournal() REQUIRES(lock_);
  void announceReplaced(const std::vector<std::string>& before);
  void removeGenerationFiles(const std::string& generation) REQUIRES(lock_);
  /// Generations that the manifest does not name: of restores that never took effect, and of vaults replaced twice.
  void removeUnusedGenerations() REQUIRES(lock_);

  // Constant after construction.
  const std::filesystem::path directory_;
  const Ports ports_;
  const std::unique_ptr<SealedSettings> settings_;
  const std::unique_ptr<Observers> observers_;          // has its own lock
  const std::unique_ptr<ProtectedKeys> protectedKeys_;  // has its own lock

  /// Guards every field below and every file of the vault.
  mutable base::RecursiveMutex lock_;
  std::optional<std::string> storageFailure_ GUARDED_BY(lock_);
  std::string generation_ GUARDED_BY(lock_);
  std::optional<std::string> previousGeneration_ GUARDED_BY(lock_);
  std::set<std::string> cancelledMigrationIDs_ GUARDED_BY(lock_);
  std::set<std::string> retiredEnvironmentNames_ GUARDED_BY(lock_);
  std::unique_ptr<VerifiedKey> verifiedMetadataKey_ GUARDED_BY(lock_);
  // The records and the identities of the files that they were decoded from.
  std::shared_ptr<const Records> records_ GUARDED_BY(lock_);
  std::optional<base::FileIdentity> manifestIdentity_ GUARDED_BY(lock_);
  std::optional<base::FileIdentity> secretsIdentity_ GUARDED_BY(lock_);
  std::optional<base::FileIdentity> projectsIdentity_ GUARDED_BY(lock_);
  /// A change could not be undone: its journal still lies there and is dealt with before anything else.
  bool journalPending_ GUARDED_BY(lock_) = false;
  /// The end of the access log may be torn and is repaired before the next append.
  bool logTailUnsure_ GUARDED_BY(lock_) = false;
  int boundary_ GUARDED_BY(lock_) = 0;
};

}  // namespace sorvane::vault
