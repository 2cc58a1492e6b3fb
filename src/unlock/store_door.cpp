#include "unlock/store_door.h"

#include "unlock/unlock_error.h"

namespace sorvane::unlock {

/// One call to the store behind the door.
class StoreDoor::Call {
 public:
  explicit Call(StoreDoor& door) : door_(door) {
    base::Lock lock(door.mutex_);
    while (door.isPaused_) door.changed_.wait(lock.mutex());
    if (!door.store_) throw UnlockError(UnlockError::Case::vaultLocked);
    store_ = door.store_;
    ++door.calls_;
  }
  ~Call() {
    store_.reset();
    const base::Lock lock(door_.mutex_);
    --door_.calls_;
    door_.changed_.notify_all();
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  vault::EnumerableSecretStore* operator->() const { return store_.get(); }

 private:
  StoreDoor& door_;
  Store store_;
};

void StoreDoor::store(std::string_view account, const base::SecretText& value) {
  Call(*this)->store(account, value);
}

base::SecretText StoreDoor::read(std::string_view account) {
  return Call(*this)->read(account);
}

void StoreDoor::remove(std::string_view account) {
  Call(*this)->remove(account);
}

std::vector<std::string> StoreDoor::accounts() {
  return Call(*this)->accounts();
}

void StoreDoor::open(Store store) {
  const base::Lock lock(mutex_);
  store_ = std::move(store);
}

void StoreDoor::close() {
  Store closed;
  base::Lock lock(mutex_);
  // New callers are refused from here on; a call under way keeps its store.
  closed = std::exchange(store_, nullptr);
  while (calls_ > 0) changed_.wait(lock.mutex());
}

StoreDoor::Store StoreDoor::behind() const {
  const base::Lock lock(mutex_);
  return store_;
}

StoreDoor::Pause::Pause(StoreDoor& door) : door_(door) {
  base::Lock lock(door.mutex_);
  while (door.isPaused_) door.changed_.wait(lock.mutex());
  door.isPaused_ = true;
  while (door.calls_ > 0) door.changed_.wait(lock.mutex());
}

StoreDoor::Pause::~Pause() {
  const base::Lock lock(door_.mutex_);
  door_.isPaused_ = false;
  door_.changed_.notify_all();
}

}  // namespace sorvane::unlock
