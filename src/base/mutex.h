#pragma once

#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define SORVANE_THREAD(x) __attribute__((x))
#else
#define SORVANE_THREAD(x)
#endif
#define CAPABILITY(x) SORVANE_THREAD(capability(x))
#define SCOPED_CAPABILITY SORVANE_THREAD(scoped_lockable)
#define GUARDED_BY(x) SORVANE_THREAD(guarded_by(x))
#define REQUIRES(...) SORVANE_THREAD(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) SORVANE_THREAD(acquire_capability(__VA_ARGS__))
#define RELEASE(...) SORVANE_THREAD(release_capability(__VA_ARGS__))
#define EXCLUDES(...) SORVANE_THREAD(locks_excluded(__VA_ARGS__))

namespace sorvane::base {

/// Mutex is std::mutex with the attributes that let clang check who holds it.
class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

/// RecursiveMutex is for the vault alone, whose operations call one another.
class CAPABILITY("mutex") RecursiveMutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

/// Lock holds a mutex for a scope. `wait` gives it up meanwhile, as a condition variable does.
template <typename M>
class SCOPED_CAPABILITY BasicLock {
 public:
  explicit BasicLock(M& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~BasicLock() RELEASE() { mutex_.unlock(); }
  BasicLock(const BasicLock&) = delete;
  BasicLock& operator=(const BasicLock&) = delete;
  /// For std::condition_variable_any, which wants a BasicLockable.
  M& mutex() { return mutex_; }

 private:
  M& mutex_;
};

using Lock = BasicLock<Mutex>;
using RecursiveLock = BasicLock<RecursiveMutex>;
/// Waits with `condition.wait(lock.mutex(), …)`; the guarded fields are held again when it returns.
using Condition = std::condition_variable_any;

}  // namespace sorvane::base
