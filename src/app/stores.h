#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "base/files.h"
#include "base/mutex.h"
#include "platform/linux/store_key.h"
#include "vault/movable_store.h"
#include "vault/store_move.h"
#include "vault/store_record.h"

namespace sorvane::app {

/// Stores opens the credential store of the support folder, keeps the record of which one that is, and moves the items
/// to another. A store that cannot be opened gives one whose every call fails with the reason, so that the application
/// can still say what is wrong. Any thread.
class Stores {
 public:
  /// Throws vault::StoreRecordError when `asked` is refused, and FileError when the choice cannot be recorded.
  Stores(std::filesystem::path supportFolder, base::Files& files, std::optional<vault::StoreKind> asked);

  vault::MovableStore& inUse() { return *inUse_; }
  vault::StoreRecord record() const;
  /// The vault was opened with the store: a choice that waited for that is recorded.
  void opened();

  /// Throws vault::StoreMoveError when the items cannot go there now.
  void checkMove(vault::StoreKind to);
  vault::StoreMoveOutcome move(vault::StoreKind to, const vault::StoreMoveSteps& steps);
  /// Removes what an interrupted move left behind. Does nothing when there is nothing.
  void finishMove();

 private:
  std::shared_ptr<vault::EnumerableSecretStore> open(vault::StoreKind kind);
  void keep(const vault::StoreRecord& record);

  // Constant after construction.
  const std::filesystem::path folder_;
  base::Files& files_;
  platform::PlainKeyFile keyFile_;
  std::unique_ptr<vault::MovableStore> inUse_;
  // Guarded. A leaf: files are written without it, by one move at a time.
  mutable base::Mutex mutex_;
  vault::StoreRecord record_ GUARDED_BY(mutex_);
  bool recordWhenOpened_ GUARDED_BY(mutex_) = false;
};

}  // namespace sorvane::app
