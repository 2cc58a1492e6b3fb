#include "agent/approval_policy.h"

#include "base/diagnostics.h"
#include "vault/sealed_settings.h"
#include "vault/vault.h"

namespace sorvane::agent {

AgentApproval ApprovalPolicy::current() {
  const std::string generation = vault_.generation();
  {
    const base::Lock lock(mutex_);
    if (generation_ == generation) return cached_;
  }
  AgentApproval policy = AgentApproval::perRequest;
  try {
    if (const auto stored = vault_.settings().load(vault::kApprovalPolicySetting)) {
      policy = agentApprovalOf(stored->view()).value_or(AgentApproval::perRequest);
    }
  } catch (const base::Error& error) {
    base::diagnose("agent", "the approval policy could not be read, so every request is asked: " + error.sentence());
    return AgentApproval::perRequest;
  }
  const base::Lock lock(mutex_);
  generation_ = generation;
  cached_ = policy;
  return policy;
}

void ApprovalPolicy::set(AgentApproval policy) {
  vault_.settings().save(vault::kApprovalPolicySetting, word(policy));
  const base::Lock lock(mutex_);
  generation_.reset();
}

}  // namespace sorvane::agent
