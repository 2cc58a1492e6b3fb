#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/mutex.h"
#include "vault/secret_store.h"

namespace sorvane::vault {

/// MovableStore stands for the store in use, so that the vault keeps one store for its life while the items move to
/// another. While it is closed for a move every call throws StoreMoveError with kStoreMoveRunning. Any thread.
class MovableStore final : public EnumerableSecretStore {
 public:
  explicit MovableStore(std::shared_ptr<EnumerableSecretStore> store) : store_(std::move(store)) {}

  void store(std::string_view account, const base::SecretText& value) override;
  base::SecretText read(std::string_view account) override;
  void remove(std::string_view account) override;
  std::vector<std::string> accounts() override;

  /// Closed keeps everybody else out while it lives. Made when the last call under way has returned; throws
  /// StoreMoveError when a move runs already.
  class Closed {
   public:
    explicit Closed(MovableStore& movable);
    ~Closed();
    Closed(const Closed&) = delete;
    Closed& operator=(const Closed&) = delete;

    /// The store in use.
    EnumerableSecretStore& store() { return *store_; }
    /// Puts another store in its place.
    void replace(std::shared_ptr<EnumerableSecretStore> store);

   private:
    MovableStore& movable_;
    const std::shared_ptr<EnumerableSecretStore> store_;
  };

  bool isClosed() const;

 private:
  class Call;
  std::shared_ptr<EnumerableSecretStore> close();

  // Guarded. A leaf: no store is called while it is held.
  mutable base::Mutex mutex_;
  base::Condition returned_;
  std::shared_ptr<EnumerableSecretStore> store_ GUARDED_BY(mutex_);
  std::size_t calls_ GUARDED_BY(mutex_) = 0;
  bool closed_ GUARDED_BY(mutex_) = false;
};

}  // namespace sorvane::vault
