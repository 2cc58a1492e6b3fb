#pragma once

#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "agent/approval.h"
#include "agent/protocol.h"
#include "vault/vault.h"

namespace sorvane::agent {

/// What an action may add to the question it asks; who asks and how the answer is bound to the request is the server's.
struct ActionQuestion {
  OwnerApprovalPrompt prompt;  ///< `requestor` is left to the server
  std::vector<std::string>
      details;  ///< further lines of the system's own words, such as how many environments are touched
  /// Whatever the policy says of whose: without it an owner whose yes cannot come any more would be kept out.
  std::optional<Approver> whoseYesCounts;
};

/// ActionCall is one `manageVault` request of the controller, already authenticated. It lives for the call; the
/// references belong to the connection's thread. Nothing of it may be kept by a job: what a job needs is moved or
/// copied out.
struct ActionCall {
  const Payload& payload;
  /// The request's `value`; moved from by the action that stores it.
  std::optional<base::SecretText>& value;
  /// "<label>", or with a requestor and a process name behind it: what a reason begins with, such as "Terminal (sorvane
  /// command line)".
  std::string requester;
  std::string label;           ///< "Terminal"
  std::string callerIdentity;  ///< equal only for the same caller in the same generation
  /// Actor, source and requestor are filled; the action sets `tool`.
  vault::AccessContext access;
  /// Blocks until the owner has answered. Asks whatever the policy says, is never remembered and never answered
  /// together with another. Anything but a denial allows this very request once; the action must use what it validated
  /// before asking.
  std::function<ApprovalResult(const ActionQuestion&)> ask;
  /// Stopped when the client is gone or the server stops; watching begins with the first call.
  std::function<std::stop_token()> withdrawn;
};

/// OwnerActions carries out the owner's own actions (docs/owner-actions.md). Called from many threads at once. A
/// failure may be thrown as a base::Error, which the server answers with its sentence, or returned as a refusal.
class OwnerActions {
 public:
  virtual ~OwnerActions() = default;
  virtual AgentResponse perform(ActionCall& call) = 0;
};

}  // namespace sorvane::agent
