#include "vault/movable_store.h"

#include "vault/store_move.h"

namespace sorvane::vault {

/// One call to the store in use; a move waits until it is over.
class MovableStore::Call {
 public:
  explicit Call(MovableStore& movable) : movable_(movable) {
    const base::Lock lock(movable.mutex_);
    if (movable.closed_) throw StoreMoveError(std::string(kStoreMoveRunning));
    store_ = movable.store_;
    ++movable.calls_;
  }
  ~Call() {
    const base::Lock lock(movable_.mutex_);
    --movable_.calls_;
    movable_.returned_.notify_all();
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  EnumerableSecretStore* operator->() const { return store_.get(); }

 private:
  MovableStore& movable_;
  std::shared_ptr<EnumerableSecretStore> store_;
};

void MovableStore::store(std::string_view account, const base::SecretText& value) {
  Call(*this)->store(account, value);
}

base::SecretText MovableStore::read(std::string_view account) {
  return Call(*this)->read(account);
}

void MovableStore::remove(std::string_view account) {
  Call(*this)->remove(account);
}

std::vector<std::string> MovableStore::accounts() {
  return Call(*this)->accounts();
}

bool MovableStore::isClosed() const {
  const base::Lock lock(mutex_);
  return closed_;
}

std::shared_ptr<EnumerableSecretStore> MovableStore::close() {
  base::Lock lock(mutex_);
  if (closed_) throw StoreMoveError(std::string(kStoreMoveRunning));
  closed_ = true;
  while (calls_ > 0) returned_.wait(lock.mutex());
  return store_;
}

MovableStore::Closed::Closed(MovableStore& movable) : movable_(movable), store_(movable.close()) {}

MovableStore::Closed::~Closed() {
  const base::Lock lock(movable_.mutex_);
  movable_.closed_ = false;
}

void MovableStore::Closed::replace(std::shared_ptr<EnumerableSecretStore> store) {
  const base::Lock lock(movable_.mutex_);
  movable_.store_ = std::move(store);
}

}  // namespace sorvane::vault
