#include "unlock/serial_queue.h"

#include <signal.h>

#include <future>

#include "base/diagnostics.h"

namespace sorvane::unlock {

using base::Lock;

SerialQueue::SerialQueue() {
  sigset_t all, earlier;
  sigfillset(&all);
  // Signals are for the threads that wait for them.
  ::pthread_sigmask(SIG_SETMASK, &all, &earlier);
  thread_ = std::thread([this] { serve(); });
  ::pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
}

SerialQueue::~SerialQueue() {
  std::deque<std::function<void()>> dropped;
  {
    const Lock lock(mutex_);
    isClosed_ = true;
    dropped.swap(waiting_);
    changed_.notify_all();
  }
  thread_.join();
}

void SerialQueue::post(std::function<void()> function) {
  const Lock lock(mutex_);
  if (isClosed_) return;
  waiting_.push_back(std::move(function));
  changed_.notify_all();
}

void SerialQueue::run(const std::function<void()>& function) {
  // Shared with the function: a queue that closes drops it, and the broken promise ends the wait.
  const auto done = std::make_shared<std::promise<void>>();
  auto finished = done->get_future();
  post([&function, done] {
    function();
    done->set_value();
  });
  finished.wait();
}

void SerialQueue::serve() {
  while (true) {
    std::function<void()> function;
    {
      Lock lock(mutex_);
      while (waiting_.empty() && !isClosed_) changed_.wait(lock.mutex());
      if (isClosed_) return;
      function = std::move(waiting_.front());
      waiting_.pop_front();
    }
    try {
      function();
    } catch (const std::exception& error) {
      base::diagnose("unlock", error.what());
    }
  }
}

}  // namespace sorvane::unlock
