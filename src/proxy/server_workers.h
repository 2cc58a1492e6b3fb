#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <thread>
#include <vector>

#include "base/descriptor.h"
#include "base/mutex.h"

namespace sorvane::proxy {

/// ServerWorkers are the threads of a server. At any time one of them, the leader, waits for the next connection; when
/// it has one, it wakes the worker that went idle last to lead in its place and serves the connection itself, so that a
/// connection never waits to be handed over. Threads are made as they are needed, at most `most`, and go when they were
/// idle for kIdle. While all of them serve nobody leads, and connections wait in the listener's queue.
class ServerWorkers {
 public:
  static constexpr std::chrono::seconds kIdle{10};

  struct Work {
    /// Blocks until a connection is there. An empty descriptor: there will be no more. Asked again when it throws.
    std::function<base::Descriptor()> next;
    /// What it throws is dropped.
    std::function<void(base::Descriptor)> serve;
  };
  ServerWorkers(std::size_t most, Work work) : most_(most), work_(std::move(work)) {}
  /// Joins; `next` must return an empty descriptor by then.
  ~ServerWorkers();
  ServerWorkers(const ServerWorkers&) = delete;
  ServerWorkers& operator=(const ServerWorkers&) = delete;

  /// Begins with one thread. Throws std::exception when the system gives none.
  void start();

 private:
  struct Worker {
    std::thread thread;
    base::Condition wake;
    bool leads = false;
  };
  using At = std::list<Worker>::iterator;

  void run(At self);
  /// False: the worker is to end.
  bool awaitLeadership(At self);
  /// Leads until a connection is there, then serves it.
  void lead(At self);
  void promoteAnother();
  void spawn() REQUIRES(mutex_);
  void end(At self) REQUIRES(mutex_);

  // Constant after construction.
  const std::size_t most_;
  const Work work_;
  // Guarded. A leaf: neither function of the work is called while it is held.
  base::Mutex mutex_;
  std::list<Worker> workers_ GUARDED_BY(mutex_);
  std::vector<At> idle_ GUARDED_BY(mutex_);  ///< in the order they went idle
  std::vector<std::thread> ended_ GUARDED_BY(mutex_);
  bool led_ GUARDED_BY(mutex_) = false;
  bool over_ GUARDED_BY(mutex_) = false;
  base::Condition gone_;
};

}  // namespace sorvane::proxy
