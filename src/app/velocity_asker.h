#pragma once

#include <deque>
#include <functional>
#include <thread>

#include "agent/approval.h"
#include "agent/notifier.h"
#include "base/mutex.h"
#include "proxy/broker.h"

namespace sorvane::app {

/// VelocityAsker asks the owner whether a stand-in that spends fast may go on, one question after the other on a thread
/// of its own. Any thread; ends its thread, and withdraws its question, with itself.
class VelocityAsker {
 public:
  /// `approver` is nullptr where nobody can be asked: the notice then says what to do.
  VelocityAsker(agent::ApprovalProvider* approver, agent::Notifier& notifier)
      : approver_(approver), notifier_(notifier) {}

  void ask(const proxy::VelocityQuestion& question, std::function<void(bool goOn)> answer);

 private:
  struct Waiting {
    proxy::VelocityQuestion question;
    std::function<void(bool goOn)> answer;
  };
  void run(const std::stop_token& stop);

  // Constant after construction.
  agent::ApprovalProvider* const approver_;
  agent::Notifier& notifier_;
  // Guarded. A leaf: nobody is asked while it is held.
  base::Mutex mutex_;
  base::Condition changed_;
  std::deque<Waiting> waiting_ GUARDED_BY(mutex_);
  std::jthread thread_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::app
