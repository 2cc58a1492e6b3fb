#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agent/approval.h"
#include "base/clock.h"
#include "base/error.h"
#include "base/mutex.h"

namespace sorvane::agent {

/// How an operation is approved; the column of the table of operations.
enum class ApprovalRule {
  none,             ///< nobody is asked
  readSecret,       ///< one value leaves in the clear
  environmentRead,  ///< an environment's values leave in the clear, unless the caller gets them redacted
  environmentRun,   ///< a command is run with them
  taskSession,      ///< an environment may be used for a stated time
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
  /// Whatever the policy says: for what brings the owner back who can say yes no more.
  std::optional<Approver> whoseYesCounts;
};

/// ApprovalRefused tells an agent why the owner was not even asked.
class ApprovalRefused : public base::Error {
 public:
  using Error::Error;
};

/// Questions of one connection that may wait at once, and denials within kDenialWindow after which it is refused for as
/// long: an agent must not wear its owner down.
inline constexpr std::size_t kMostWaiting = 5, kMostDenials = 3;
inline constexpr std::chrono::seconds kDenialWindow{60};

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
    /// Whose yes counts; does not throw. Absent: anybody's.
    std::function<Approver()> approver;
    /// Whether the owner's recent presence is vouched for. Absent: never.
    std::function<bool()> trustedSession;
    const base::Clock& clock;
  };
  explicit Approvals(Ports ports) : ports_(std::move(ports)) {}

  /// An answer that comes after the generation ended counts as denied. Throws ApprovalRefused when the connection asks
  /// too much.
  ApprovalResult approve(const ApprovalQuestion& question);

  /// Begins a generation, or ends the present one with nullopt: what was remembered is forgotten.
  void setGeneration(std::optional<std::int64_t> generation);
  bool isCurrent(std::int64_t generation) const;

 private:
  /// What an answer is remembered for: the environment, the caller, and for the controller, whose token every program
  /// of this user can read, the process that started the asking one.
  struct Remembered {
    std::string environmentId, callerIdentity;
    pid_t process = 0;
    unsigned long long startedAt = 0;
    auto operator<=>(const Remembered&) const = default;
  };
  /// One connection's questions.
  struct Asker {
    std::size_t waiting = 0;
    std::vector<base::Instant> denials;  ///< within kDenialWindow, oldest first
    base::Instant refusedUntil{};
  };
  class Turn;

  bool mustAsk(const ApprovalQuestion& question);
  /// `saidNo` tells a person's no from nobody's answer.
  ApprovalResult ask(const ApprovalQuestion& question, bool& saidNo);
  bool isRemembered(const ApprovalQuestion& question) REQUIRES(mutex_);
  void enter(const ApprovalQuestion& question);
  void leave(const ApprovalQuestion& question, bool denied);

  // Constant after construction.
  const Ports ports_;
  // Guarded. A leaf: nobody is asked while it is held.
  mutable base::Mutex mutex_;
  std::optional<std::int64_t> generation_ GUARDED_BY(mutex_);
  std::set<Remembered> approvedEnvironments_ GUARDED_BY(mutex_);
  std::map<std::string, Asker, std::less<>> askers_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::agent
