#include "proxy/server_workers.h"

#include <algorithm>
#include <exception>

namespace sorvane::proxy {

ServerWorkers::~ServerWorkers() {
  std::vector<std::thread> threads;
  {
    base::Lock lock(mutex_);
    over_ = true;
    for (const At& worker : idle_) worker->wake.notify_one();
    while (!workers_.empty()) gone_.wait(lock.mutex());
    threads.swap(ended_);
  }
  for (std::thread& thread : threads) thread.join();
}

void ServerWorkers::start() {
  const base::Lock lock(mutex_);
  // With room for every worker, going idle and ending need no memory.
  idle_.reserve(most_);
  ended_.reserve(most_);
  led_ = true;
  spawn();
}

void ServerWorkers::spawn() {
  // Threads that ended meanwhile are past their last use of this object: joining them takes no time.
  for (std::thread& thread : ended_) thread.join();
  ended_.clear();
  const At worker = workers_.emplace(workers_.end());
  worker->leads = true;
  try {
    worker->thread = std::thread([this, worker] { run(worker); });
  } catch (...) {
    workers_.erase(worker);
    throw;
  }
}

void ServerWorkers::run(At self) {
  while (awaitLeadership(self)) lead(self);
}

void ServerWorkers::lead(At self) {
  bool leading = true;
  try {
    base::Descriptor socket = work_.next();
    if (!socket) {
      const base::Lock lock(mutex_);
      over_ = true;
      for (const At& worker : idle_) worker->wake.notify_one();
      return;
    }
    leading = false;
    promoteAnother();
    work_.serve(std::move(socket));
  } catch (const std::exception&) {
    // One connection is lost at most. A leader goes on leading: the others wait to be woken by it.
    const base::Lock lock(mutex_);
    if (leading) self->leads = true;
  }
}

bool ServerWorkers::awaitLeadership(At self) {
  base::Lock lock(mutex_);
  if (!std::exchange(self->leads, false) && !over_) {
    if (!led_) {
      led_ = true;
      return true;
    }
    idle_.push_back(self);
    const auto until = std::chrono::steady_clock::now() + kIdle;
    while (!self->leads && !over_) {
      if (self->wake.wait_until(lock.mutex(), until) == std::cv_status::timeout && !self->leads) break;
    }
    std::erase(idle_, self);
    if (std::exchange(self->leads, false) && !over_) return true;
    end(self);
    return false;
  }
  if (!over_) return true;
  end(self);
  return false;
}

void ServerWorkers::promoteAnother() {
  const base::Lock lock(mutex_);
  led_ = false;
  if (over_) return;
  if (!idle_.empty()) {
    const At worker = idle_.back();
    idle_.pop_back();
    worker->leads = led_ = true;
    worker->wake.notify_one();
  } else if (workers_.size() < most_) {
    try {
      spawn();
      led_ = true;
    } catch (const std::exception&) {
      // The next worker that is done leads.
    }
  }
}

void ServerWorkers::end(At self) {
  ended_.push_back(std::move(self->thread));
  workers_.erase(self);
  if (workers_.empty()) gone_.notify_all();
}

}  // namespace sorvane::proxy
