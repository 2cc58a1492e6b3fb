#pragma once

#include <thread>

#include "base/mutex.h"
#include "unlock/owner_presence.h"

namespace sorvane::platform {

/// OwnerQuestion carries the system's answer to whoever asked: once, and Cancelled when the question was withdrawn
/// before. Any thread.
class OwnerQuestion {
 public:
  explicit OwnerQuestion(unlock::OwnerPresence::Reply reply) : reply_(std::move(reply)) {}

  /// Replies within the call. Nothing when there was an answer before.
  void answer(unlock::OwnerPresence::Answer answer);
  /// Whatever is answered from now on counts as Cancelled.
  void withdraw();
  /// Replies with Cancelled unless there was an answer, and waits for a reply that is under way on another thread.
  void end();

 private:
  // Guarded. A leaf: the reply is called without it.
  base::Mutex mutex_;
  base::Condition replied_;
  unlock::OwnerPresence::Reply reply_ GUARDED_BY(mutex_);
  bool isWithdrawn_ GUARDED_BY(mutex_) = false;
  std::thread::id replying_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::platform
