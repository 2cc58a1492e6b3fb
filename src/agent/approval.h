#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "base/system.h"

namespace sorvane::agent {

/// What the owner is asked. `kind`, `reason`, `subject` and the targets are this system's own words; `requestor` and
/// the quoted details come from the caller and are shown as such.
struct OwnerApprovalPrompt {
  enum class Kind { readSecret, useEnvironment, taskSession, other };
  Kind kind = Kind::other;
  std::string reason;
  std::optional<std::string> requestor;
  std::optional<std::string> subject;
  std::optional<std::int64_t> version;
  std::optional<std::vector<std::string>> allowedTargets;
  std::optional<std::string> declaredTarget;
};
std::string_view word(OwnerApprovalPrompt::Kind kind);

/// Whose yes counts. A no counts from anywhere.
enum class Approver { terminal, system, phone, any };
std::string_view word(Approver approver);
std::optional<Approver> approverOf(std::string_view word);

/// Who waits for the answer, and what is shown beside the reason.
struct ApprovalContext {
  std::string label;                         ///< the grant's label, or "Terminal"
  std::string callerIdentity;                ///< equal only for the same caller
  bool isController = false;                 ///< the owner's own command line
  std::vector<base::ProcessInfo> processes;  ///< the asking process and its parents; empty when the system did not say
  std::vector<std::string> commandWords;     ///< of runEnv, shown whole; empty for other operations
  std::optional<std::string> directory;      ///< of runEnv, shown whole
  std::vector<std::string> details;  ///< further lines of the system's own words, such as "Raw values leave the vault."
  std::string requestDigest;         ///< SHA-256 of the request's bytes: equal requests may be answered together
  bool mayBeAnsweredTogether = false;  ///< reads only, never an action of the owner's own
  Approver whoseYesCounts = Approver::any;
  std::stop_token withdrawn;          ///< stopped when the client is gone, the server stops, or as follows
  std::stop_token answeredElsewhere;  ///< stopped before `withdrawn` when somebody else answered
};

/// ApprovalProvider is the application's own way to ask: the terminal it runs on, a paired phone. Blocks until the
/// owner answers; nullopt means no answer, and the system's owner prompt is asked instead. Any thread.
class ApprovalProvider {
 public:
  virtual ~ApprovalProvider() = default;
  /// Whether it could ask somebody now whose yes counts.
  virtual bool canAsk(Approver whoseYesCounts) { return whoseYesCounts != Approver::system; }
  virtual std::optional<bool> ask(const OwnerApprovalPrompt& prompt, const ApprovalContext& context) = 0;
};

/// SystemOwnerPrompt asks the system who is there. `unavailable` carries the sentence for standard error.
class SystemOwnerPrompt {
 public:
  virtual ~SystemOwnerPrompt() = default;
  struct Answer {
    bool granted = false;
    std::optional<std::string> unavailable;
  };
  virtual Answer ask(const OwnerApprovalPrompt& prompt, const ApprovalContext& context) = 0;
};

/// What came of a question. Only an answer of the system's own prompt is ever remembered.
enum class ApprovalResult { denied, bySystem, byApplication };

/// The answer to a request that the owner did not allow.
inline constexpr std::string_view kApprovalDenied = "approval denied";

/// The owner's policy for the agent operations; stored as the name of the case ("unlocked", "perRequest",
/// "perEnvironment").
enum class AgentApproval { unlocked, perRequest, perEnvironment };
std::string_view word(AgentApproval policy);
std::optional<AgentApproval> agentApprovalOf(std::string_view word);

}  // namespace sorvane::agent
