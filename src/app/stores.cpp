#include "app/stores.h"

#include "base/diagnostics.h"
#include "base/support_folder.h"
#include "platform/adapters.h"
#include "vault/domain_move.h"

namespace sorvane::app {
namespace {

using vault::EnumerableSecretStore;
using vault::SecretStoreError;
using vault::StoreKind;
using vault::StoreMoveError;
using FirstRun = unlock::StoreGate::FirstRun;

constexpr std::string_view kManifestName = "active-vault.json";
constexpr std::string_view kUnprotected =
    "The values are not sealed under a passphrase, so any program that runs as this user could read them.";
constexpr std::string_view kSealed =
    "The values lie sealed under the passphrase. While the vault is open, a program that runs as this user can ask "
    "sorvaned for what its access allows; copies made before the passphrase was set still open without it.";
constexpr std::string_view kKeyringUnlocked =
    "The values lie in the desktop's keyring. While it is unlocked, any program that runs as this user could ask it "
    "for them.";

constexpr std::string_view kKeychainUnlocked =
    "The values lie in the Keychain, where no program can ask for them but those that are signed as sorvane is, and "
    "only "
    "while this computer is unlocked.";
constexpr std::string_view kCopiesLeft =
    "all values are in the protected Keychain, but the login Keychain may still hold copies of some. They were not "
    "shared. The next start of sorvaned removes them.";

constexpr std::string_view kSwitchUnfinished =
    "A backup is being put in place and that could not be finished. Nothing is lost. Check that the support folder can "
    "be written to, then restart sorvaned, which finishes it.";

/// Stands for a store that could not be opened.
class UnavailableStore final : public EnumerableSecretStore {
 public:
  explicit UnavailableStore(SecretStoreError reason) : reason_(std::move(reason)) {}
  void store(std::string_view, const base::SecretText&) override { fail(); }
  base::SecretText read(std::string_view) override { fail(); }
  void remove(std::string_view) override { fail(); }
  std::vector<std::string> accounts() override { fail(); }

 private:
  [[noreturn]] void fail() const { throw SecretStoreError(reason_); }
  const SecretStoreError reason_;
};

/// LeftStore is a sealed store whose items were copied before its key was closed: they can be removed unread.
class LeftStore final : public EnumerableSecretStore {
 public:
  explicit LeftStore(std::shared_ptr<EnumerableSecretStore> store) : store_(std::move(store)) {}
  void store(std::string_view, const base::SecretText&) override {
    throw SecretStoreError::backend("the old store is sealed");
  }
  base::SecretText read(std::string_view) override { throw SecretStoreError::notFound(); }
  void remove(std::string_view account) override { store_->remove(account); }
  std::vector<std::string> accounts() override { return store_->accounts(); }

 private:
  const std::shared_ptr<EnumerableSecretStore> store_;
};

/// A move, for as long as it lasts.
class Moving {
 public:
  explicit Moving(unlock::StoreGate& gate) : gate_(gate), store_(gate.beginMove()) {}
  ~Moving() { gate_.endMove(); }
  Moving(const Moving&) = delete;
  Moving& operator=(const Moving&) = delete;
  EnumerableSecretStore& store() { return *store_; }

 private:
  unlock::StoreGate& gate_;
  const std::shared_ptr<EnumerableSecretStore> store_;
};

bool liesAt(const std::filesystem::path& path) {
  std::error_code error;
  return std::filesystem::symlink_status(path, error).type() != std::filesystem::file_type::not_found;
}

std::vector<std::string> namesOfVault() {
  std::vector<std::string> names = platform::EmbeddedStoreFiles::names();
  names.emplace_back(unlock::kWrapName);
  names.emplace_back(base::kVaultName);
  return names;
}

bool hasManifest(const std::filesystem::path& folder) {
  return liesAt(folder / base::kVaultName / kManifestName);
}

}  // namespace

Stores::Stores(std::filesystem::path supportFolder, base::Files& files, std::optional<StoreKind> asked)
    : folder_(std::move(supportFolder)),
      files_(files),
      embedded_(folder_, files),
      switch_(folder_, namesOfVault(), files),
      record_(choose(asked)),
      gate_({files, folder_ / unlock::kWrapName, *door_, {}}, kindOf(record().kind),
            hasManifest(folder_) ? FirstRun::no : FirstRun::yes) {
  bringOver();
}

void Stores::bringOver() {
  if (record().kind == StoreKind::embedded) return;
  const platform::SystemStore system = platform::openSystemStore();
  if (!system.old) return;
  // Every program of the user can put items there: only a vault that is here already may have left some of its own.
  if (!liesAt(folder_ / base::kVaultName)) return vault::beginInNewDomain(*system.store);
  const vault::MovableStore::Closed closed(inUse_);
  if (vault::moveDomain(*system.old, *system.store, {}) == vault::StoreMoveOutcome::remainderLeft) {
    base::diagnose("app", kCopiesLeft);
  }
}

vault::StoreRecord Stores::choose(std::optional<StoreKind> asked) {
  switch_.settle();
  const vault::StoreTraces traces{hasManifest(folder_), liesAt(embedded_.database())};
  const vault::StoreChoice choice =
      vault::chooseStore(asked, vault::readStoreRecord(files_, folder_), traces, platform::storeKinds());
  if (choice.write == vault::StoreChoice::Write::now) vault::writeStoreRecord(files_, folder_, choice.record);
  const base::Lock lock(mutex_);
  recordWhenOpened_ = choice.write == vault::StoreChoice::Write::onceOpened;
  return choice.record;
}

unlock::StoreGate::Kind Stores::kindOf(StoreKind kind) {
  switch (kind) {
    case StoreKind::embedded:
      return {[this] { return embedded_.openPlain(); }, &embedded_};
    case StoreKind::secretService:
    case StoreKind::keychain:
      return {[] { return platform::openSystemStore().store; }, nullptr};
  }
  throw SecretStoreError::backend("no such store");
}

void Stores::open() {
  try {
    gate_.open();
  } catch (const unlock::UnlockError&) {
    throw;
  } catch (const SecretStoreError& error) {
    door_->open(std::make_shared<UnavailableStore>(error));
  } catch (const base::Error& error) {
    door_->open(std::make_shared<UnavailableStore>(SecretStoreError::backend(error.sentence())));
  }
}

std::shared_ptr<EnumerableSecretStore> Stores::openBeside() {
  if (isSealed()) throw unlock::UnlockError(unlock::UnlockError::Case::vaultLocked);
  return kindOf(record().kind).open();
}

bool Stores::isNew() const {
  return gate_.isFirstRun() && !gate_.isSealed() && !hasManifest(folder_);
}

std::string Stores::protectionInWords() const {
  if (record().kind == StoreKind::secretService) return std::string(kKeyringUnlocked);
  if (record().kind == StoreKind::keychain) return std::string(kKeychainUnlocked);
  return std::string(isSealed() ? kSealed : kUnprotected);
}

vault::StoreRecord Stores::record() const {
  const base::Lock lock(mutex_);
  return record_;
}

void Stores::keep(const vault::StoreRecord& record) {
  vault::writeStoreRecord(files_, folder_, record);
  const base::Lock lock(mutex_);
  record_ = record;
  recordWhenOpened_ = false;
}

void Stores::opened() {
  {
    const base::Lock lock(mutex_);
    if (!recordWhenOpened_) return;
  }
  keep(record());
}

void Stores::checkMove(StoreKind to) {
  const vault::StoreRecord now = record();
  if (inUse_.isClosed()) throw StoreMoveError(std::string(vault::kStoreMoveRunning));
  if (now.leaving) {
    throw StoreMoveError("An earlier move has not yet removed all items from " + std::string(inWords(*now.leaving)) +
                         ". Nothing was moved. Restart sorvaned to finish it.");
  }
  if (now.kind == to) {
    throw StoreMoveError("The values are already kept in " + std::string(inWords(to)) + ". Nothing was moved.");
  }
}

/// The embedded store as it is found when another is in use: plain, unless its wrap was left behind.
Stores::Store Stores::openTarget(StoreKind kind) {
  const auto wrap = folder_ / unlock::kWrapName;
  if (kind == StoreKind::embedded && liesAt(wrap)) {
    if (!embedded_.open(crypto::SymmetricKey::random())->accounts().empty()) {
      throw SecretStoreError::backend("it holds items of an earlier vault that are sealed under a passphrase");
    }
    files_.remove(wrap);
  }
  return kindOf(kind).open();
}

Stores::Store Stores::openLeft(StoreKind kind) {
  if (kind == StoreKind::embedded && liesAt(folder_ / unlock::kWrapName)) {
    return std::make_shared<LeftStore>(embedded_.open(crypto::SymmetricKey::random()));
  }
  return kindOf(kind).open();
}

/// Nothing is in the store any more, so nothing needs its key.
void Stores::emptied(StoreKind kind) {
  if (kind == StoreKind::embedded) files_.remove(folder_ / unlock::kWrapName);
}

std::filesystem::path Stores::switchTo(const std::filesystem::path& stage, base::Date now) {
  std::filesystem::path aside;
  gate_.replace([&] {
    try {
      aside = switch_.carryOut(stage, now);
    } catch (const std::exception& error) {
      if (!switch_.wasDecided()) throw;
      base::diagnose("app", error.what());
      throw unlock::StoreLost(std::string(kSwitchUnfinished));
    }
  });
  return aside;
}

void Stores::removeItems() {
  for (const std::string& account : inUse_.accounts()) inUse_.remove(account);
  emptied(record().kind);
}

vault::StoreMoveOutcome Stores::move(StoreKind to, const vault::StoreMoveSteps& steps) {
  const vault::MovableStore::Closed closed(inUse_);
  Moving moving(gate_);
  const StoreKind from = record().kind;
  Store target;
  try {
    target = openTarget(to);
  } catch (const base::Error& error) {
    throw StoreMoveError(vault::storeMoveFailure(error.sentence()));
  }
  vault::StoreMoveSteps counted = steps;
  counted.adopt = [&] {
    keep({to, from});
    gate_.moved(kindOf(to), target);
    if (steps.adopt) steps.adopt();
  };
  const vault::StoreMoveOutcome outcome = vault::moveStore(moving.store(), *target, counted);
  if (outcome == vault::StoreMoveOutcome::moved) {
    emptied(from);
    keep({to, {}});
  }
  return outcome;
}

void Stores::finishMove() {
  const vault::StoreRecord now = record();
  if (!now.leaving) return;
  const vault::MovableStore::Closed closed(inUse_);
  Moving moving(gate_);
  const Store left = openLeft(*now.leaving);
  if (vault::finishStoreMove(*left, moving.store(), {}) == vault::StoreMoveOutcome::moved) {
    emptied(*now.leaving);
    keep({now.kind, {}});
  }
}

}  // namespace sorvane::app
