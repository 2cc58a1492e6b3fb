#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "base/mutex.h"
#include "vault/secret_store.h"

namespace sorvane::unlock {

/// StoreDoor stands for the store in use: whoever borrowed it reaches the store while the vault is open and is refused
/// with UnlockError vaultLocked while it is not. Any thread.
class StoreDoor final : public vault::EnumerableSecretStore {
 public:
  using Store = std::shared_ptr<vault::EnumerableSecretStore>;

  void store(std::string_view account, const base::SecretText& value) override;
  base::SecretText read(std::string_view account) override;
  void remove(std::string_view account) override;
  std::vector<std::string> accounts() override;

  /// Opens the door to `store`.
  void open(Store store);
  /// Closes it, and returns when the last call under way is over: nobody holds the store by then.
  void close();
  /// What is behind it; nullptr while it is closed.
  Store behind() const;

  /// Pause keeps callers waiting while it lives; made when the last call under way is over. One at a time.
  class Pause {
   public:
    explicit Pause(StoreDoor& door);
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;

   private:
    StoreDoor& door_;
  };

 private:
  class Call;

  // Guarded. A leaf: no store is called while it is held.
  mutable base::Mutex mutex_;
  base::Condition changed_;
  Store store_ GUARDED_BY(mutex_);
  std::size_t calls_ GUARDED_BY(mutex_) = 0;
  bool isPaused_ GUARDED_BY(mutex_) = false;
};

}  // namespace sorvane::unlock
