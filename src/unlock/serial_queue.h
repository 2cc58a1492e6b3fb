#pragma once

#include <deque>
#include <thread>

#include "base/mutex.h"
#include "unlock/executor.h"

namespace sorvane::unlock {

/// SerialQueue is an executor with one thread, started with it. The destructor finishes the function that runs, drops
/// those that wait and joins the thread; it must not run on that thread.
class SerialQueue final : public Executor {
 public:
  SerialQueue();
  ~SerialQueue() override;
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  void post(std::function<void()> function) override;
  /// Runs the function on the queue's thread and waits for it. Not to be called by a function of the queue.
  void run(const std::function<void()>& function);

 private:
  void serve();

  // Guarded. A leaf: functions run without it.
  base::Mutex mutex_;
  base::Condition changed_;
  std::deque<std::function<void()>> waiting_ GUARDED_BY(mutex_);
  bool isClosed_ GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace sorvane::unlock
