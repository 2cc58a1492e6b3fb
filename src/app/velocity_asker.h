#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>

#include "agent/approval.h"
#include "agent/notifier.h"
#include "base/mutex.h"
#include "proxy/broker.h"

namespace sorvane::app {

/// VelocityAsker asks the owner whether a stand-in that spends fast may go on, one question after the other on a thread
/// of its own. A question is withdrawn when its grant is over, or went on without it. Any thread; ends its thread, and
/// withdraws its question, with itself.
class VelocityAsker {
 public:
  struct Ports {
    agent::ApprovalProvider* approver;  ///< nullptr where nobody can be asked: the notice then says what to do
    agent::Notifier& notifier;
    std::function<bool(std::string_view lookupId)> isLive;
  };
  explicit VelocityAsker(Ports ports) : ports_(std::move(ports)) {}

  /// Asks nothing more; the question that stands is withdrawn, and nothing is called when this returns.
  void stop();
  /// Whose yes counts now. Until this is set, and while nobody can be asked whose does, the owner is only told.
  void goBy(std::function<agent::Approver()> whoseYesCounts);
  void ask(const proxy::VelocityQuestion& question, std::function<void(bool goOn)> answer);
  /// The question about this grant, standing or waiting, needs no answer any more.
  void withdraw(std::string_view lookupId);

 private:
  struct Waiting {
    proxy::VelocityQuestion question;
    std::function<void(bool goOn)> answer;
  };
  /// A question that stands.
  struct Standing {
    std::string lookupId;
    std::stop_source withdrawn;
  };
  void run(const std::stop_token& stop);
  void put(const Waiting& next, const std::stop_source& withdrawn);
  /// nullopt: nobody's whom the approver could ask.
  std::optional<agent::Approver> whoseYesCounts();

  // Constant after construction.
  const Ports ports_;
  // Guarded. A leaf: nobody is asked while it is held.
  base::Mutex mutex_;
  base::Condition changed_;
  std::function<agent::Approver()> whoseYesCounts_ GUARDED_BY(mutex_);
  std::deque<Waiting> waiting_ GUARDED_BY(mutex_);
  std::optional<Standing> standing_ GUARDED_BY(mutex_);
  std::jthread thread_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::app
