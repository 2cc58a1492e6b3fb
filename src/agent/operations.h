#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

#include "agent/approvals.h"
#include "agent/protocol.h"
#include "agent/requester.h"
#include "vault/vault.h"

namespace sorvane::agent {

class Handlers;

/// The question of an operation; the server adds who asks.
struct OperationQuestion {
  OwnerApprovalPrompt prompt;
  std::vector<std::string> commandWords;
  std::optional<std::string> directory;
  std::vector<std::string> details;
  std::string environmentId;               ///< of the environment rules
  std::optional<Approver> whoseYesCounts;  ///< whatever the policy says
};

/// Call is one authenticated request on its connection's thread. What costs (the name of the peer process, the digest)
/// is made when it is first asked for.
class Call {
 public:
  virtual ~Call() = default;

  AgentRequest& request() { return request_; }
  const Caller& caller() const { return caller_; }

  /// What a reason begins with.
  virtual const std::string& requester() = 0;
  /// For the access log, with the operation's log action.
  vault::AccessContext access(std::string_view tool) const;
  /// Asks the owner under the operation's rule, if the policy wants it. Blocks.
  virtual ApprovalResult ask(const OperationQuestion& question) = 0;
  bool denied(const OperationQuestion& question) { return ask(question) == ApprovalResult::denied; }
  /// A keyed digest of a text on the clipboard, the same for equal texts until the server stops.
  virtual std::string fingerprint(const base::SecretText& text) = 0;
  /// Stopped when the client is gone or the server stops; watching begins with the first call.
  virtual std::stop_token withdrawn() = 0;
  /// The process at the other end of the connection; 0 when the system does not say.
  virtual pid_t peer() const = 0;

 protected:
  Call(AgentRequest request, Caller caller) : request_(std::move(request)), caller_(std::move(caller)) {}

 private:
  AgentRequest request_;
  const Caller caller_;
};

/// Who may call an operation.
enum class CallerRule {
  any,         ///< the controller and every grant
  mayReveal,   ///< the controller and grants with raw values allowed
  controller,  ///< the controller alone
};

struct Operation {
  AgentOp op;
  CallerRule caller;
  ApprovalRule approval;
  AgentResponse (Handlers::*handler)(Call&);
};

/// Every operation and what must hold before it runs, in the order of AgentOp.
extern const std::array<Operation, kOpCount> kOperations;

inline const Operation& operationOf(AgentOp op) {
  return kOperations[static_cast<std::size_t>(op)];
}

/// The refusal of a caller that the rule does not admit, or nullopt.
std::optional<AgentResponse> refusedCaller(CallerRule rule, const Caller& caller);

/// Runs the operation for a caller that it admits; every failure becomes an answer.
AgentResponse perform(Handlers& handlers, Call& call);

}  // namespace sorvane::agent
