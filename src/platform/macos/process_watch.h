#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <thread>

#include "base/descriptor.h"
#include "base/mutex.h"
#include "proxy/process_watch.h"

namespace sorvane::platform {

/// KqueueWatch watches processes with kqueue(2) from one thread, which the first one starts.
class KqueueWatch final : public proxy::ProcessWatch {
 public:
  KqueueWatch();
  /// Waits for a call that runs.
  ~KqueueWatch() override;
  KqueueWatch(const KqueueWatch&) = delete;
  KqueueWatch& operator=(const KqueueWatch&) = delete;

  Watched watch(pid_t process, std::function<void()> ended) override;
  void forget(std::uint64_t token) override;

 private:
  struct Entry {
    pid_t process = 0;
    std::function<void()> ended;
  };
  void run();
  /// Takes one entry of the process out and calls it without the lock. False when there is none up to `lastToken`.
  bool tell(pid_t process, std::uint64_t lastToken);

  // Constant after construction.
  base::Descriptor queue_;
  // Guarded. No call of an entry while it is held.
  base::Mutex mutex_;
  base::Condition told_;
  std::map<std::uint64_t, Entry> entries_ GUARDED_BY(mutex_);
  std::uint64_t lastToken_ GUARDED_BY(mutex_) = 0;
  std::uint64_t telling_ GUARDED_BY(mutex_) = 0;  ///< the token whose call runs; 0: none
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::thread thread_ GUARDED_BY(mutex_);
  std::thread::id teller_ GUARDED_BY(mutex_);  ///< of `thread_`, also while it is being ended
};

}  // namespace sorvane::platform
