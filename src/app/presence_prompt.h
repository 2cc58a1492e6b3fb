#pragma once

#include <functional>

#include "agent/approval.h"
#include "base/mutex.h"
#include "unlock/owner_presence.h"

namespace sorvane::app {

/// PresencePrompt puts an agent's question to the system's owner check, one question at a time. Any thread; blocks
/// until the owner answered or the question was withdrawn.
class PresencePrompt final : public agent::SystemOwnerPrompt {
 public:
  struct Ports {
    unlock::OwnerPresence& presence;
    /// Tells `presence` for which process it asks from now on; 0: for this one.
    std::function<void(pid_t process)> askFor;
    /// The owner answered.
    std::function<void()> onAnswer;
  };
  explicit PresencePrompt(Ports ports) : ports_(std::move(ports)) {}

  Answer ask(const agent::OwnerApprovalPrompt& prompt, const agent::ApprovalContext& context) override;

 private:
  const Ports ports_;
  // Whose turn it is. Held while the owner is asked: that is what it is for.
  base::Mutex turnMutex_;
  base::Condition turnEnded_;
  bool isTaken_ GUARDED_BY(turnMutex_) = false;
};

}  // namespace sorvane::app
