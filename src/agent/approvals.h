#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "agent/approval.h"
#include "base/mutex.h"

namespace sorvane::agent {

/// How an operation is approved; the column of the table of operations.
enum class ApprovalRule {
  none,             ///< nobody is asked
  readSecret,       ///< one value leaves in the clear
  environmentRead,  ///< an environment's values leave in the clear, unless the caller gets them redacted
  environmentRun,   ///< a command is run with them
  change,           ///< the vault is changed
  perAction         ///< the owner's own action decides; what asks, asks whatever the policy says
};

/// What is put to the owner, and what an answer would stand for.
struct ApprovalQuestion {
  ApprovalRule rule = ApprovalRule::change;
  OwnerApprovalPrompt prompt;
  ApprovalContext context;
  /// Of the environment rules: what an answer of the system's prompt is remembered for.
  std::string environmentId;
  std::int64_t generation = 0;
};

/// Approvals decides whether the owner must be asked under the policy in force, asks, and keeps what may be remembered
/// until the server stops. Blocks as long as the owner takes. Any thread.
class Approvals {
 public:
  struct Ports {
    /// The application's own way to ask; nullptr when it has none.
    ApprovalProvider* provider = nullptr;
    SystemOwnerPrompt& system;
    /// The policy in force; does not throw.
    std::function<AgentApproval()> policy;
    /// Whether the owner's recent presence is vouched for. Absent: never.
    std::function<bool()> trustedSession;
  };
  explicit Approvals(Ports ports) : ports_(std::move(ports)) {}

  /// An answer that comes after the generation ended counts as denied.
  ApprovalResult approve(const ApprovalQuestion& question);

  /// Begins a generation, or ends the present one with nullopt: what was remembered is forgotten.
  void setGeneration(std::optional<std::int64_t> generation);
  bool isCurrent(std::int64_t generation) const;

 private:
  bool mustAsk(const ApprovalQuestion& question);
  ApprovalResult ask(const ApprovalQuestion& question);

  // Constant after construction.
  const Ports ports_;
  // Guarded. A leaf: nobody is asked while it is held.
  mutable base::Mutex mutex_;
  std::optional<std::int64_t> generation_ GUARDED_BY(mutex_);
  std::set<std::string, std::less<>> approvedEnvironments_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::agent
