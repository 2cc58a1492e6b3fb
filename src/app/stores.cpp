#include "app/stores.h"

#include "base/diagnostics.h"
#include "base/support_folder.h"
#include "platform/linux/embedded_secret_store.h"
#include "platform/linux/secret_service_store.h"

namespace sorvane::app {
namespace {

using vault::EnumerableSecretStore;
using vault::SecretStoreError;
using vault::StoreKind;
using vault::StoreMoveError;

constexpr std::string_view kDatabaseName = "values.db";
constexpr std::string_view kStoreKeyName = "store.key";
constexpr std::string_view kManifestName = "active-vault.json";

/// Stands for a store that could not be opened.
class UnavailableStore final : public EnumerableSecretStore {
 public:
  explicit UnavailableStore(SecretStoreError reason) : reason_(std::move(reason)) {}
  void store(std::string_view, const base::SecretText&) override { throw SecretStoreError(reason_); }
  base::SecretText read(std::string_view) override { throw SecretStoreError(reason_); }
  void remove(std::string_view) override { throw SecretStoreError(reason_); }
  std::vector<std::string> accounts() override { throw SecretStoreError(reason_); }

 private:
  const SecretStoreError reason_;
};

bool liesAt(const std::filesystem::path& path) {
  std::error_code error;
  return std::filesystem::symlink_status(path, error).type() != std::filesystem::file_type::not_found;
}

}  // namespace

Stores::Stores(std::filesystem::path supportFolder, base::Files& files, std::optional<StoreKind> asked)
    : folder_(std::move(supportFolder)), files_(files), keyFile_(folder_ / kStoreKeyName, files) {
  const vault::StoreTraces traces{liesAt(folder_ / base::kVaultName / kManifestName), liesAt(folder_ / kDatabaseName)};
  const vault::StoreChoice choice = vault::chooseStore(asked, vault::readStoreRecord(files_, folder_), traces);
  if (choice.write == vault::StoreChoice::Write::now) vault::writeStoreRecord(files_, folder_, choice.record);
  {
    const base::Lock lock(mutex_);
    record_ = choice.record;
    recordWhenOpened_ = choice.write == vault::StoreChoice::Write::onceOpened;
  }
  std::shared_ptr<EnumerableSecretStore> store;
  try {
    store = open(choice.record.kind);
  } catch (const SecretStoreError& error) {
    store = std::make_shared<UnavailableStore>(error);
  }
  inUse_ = std::make_unique<vault::MovableStore>(std::move(store));
}

std::shared_ptr<EnumerableSecretStore> Stores::open(StoreKind kind) {
  switch (kind) {
    case StoreKind::embedded:
      return std::make_shared<platform::EmbeddedSecretStore>(folder_ / kDatabaseName, keyFile_);
    case StoreKind::secretService:
      return std::make_shared<platform::SecretServiceStore>();
  }
  throw SecretStoreError::backend("no such store");
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
  if (inUse_->isClosed()) throw StoreMoveError(std::string(vault::kStoreMoveRunning));
  if (now.leaving) {
    throw StoreMoveError("An earlier move has not yet removed all items from " + std::string(inWords(*now.leaving)) +
                         ". Nothing was moved. Restart sorvaned to finish it.");
  }
  if (now.kind == to) {
    throw StoreMoveError("The values are already kept in " + std::string(inWords(to)) + ". Nothing was moved.");
  }
}

vault::StoreMoveOutcome Stores::move(StoreKind to, const vault::StoreMoveSteps& steps) {
  vault::MovableStore::Closed closed(*inUse_);
  const StoreKind from = record().kind;
  std::shared_ptr<EnumerableSecretStore> target;
  try {
    target = open(to);
  } catch (const SecretStoreError& error) {
    throw StoreMoveError(vault::storeMoveFailure(error.sentence()));
  }
  vault::StoreMoveSteps moving = steps;
  moving.adopt = [&] {
    keep({to, from});
    closed.replace(target);
    if (steps.adopt) steps.adopt();
  };
  const vault::StoreMoveOutcome outcome = vault::moveStore(closed.store(), *target, moving);
  if (outcome == vault::StoreMoveOutcome::moved) keep({to, {}});
  return outcome;
}

void Stores::finishMove() {
  const vault::StoreRecord now = record();
  if (!now.leaving) return;
  vault::MovableStore::Closed closed(*inUse_);
  const auto left = open(*now.leaving);
  if (vault::finishStoreMove(*left, closed.store(), {}) == vault::StoreMoveOutcome::moved) keep({now.kind, {}});
}

}  // namespace sorvane::app
