#include "agent/approvals.h"

#include <array>

#include "base/diagnostics.h"

namespace sorvane::agent {

std::string_view word(OwnerApprovalPrompt::Kind kind) {
  switch (kind) {
    case OwnerApprovalPrompt::Kind::readSecret:
      return "readSecret";
    case OwnerApprovalPrompt::Kind::useEnvironment:
      return "useEnvironment";
    case OwnerApprovalPrompt::Kind::taskSession:
      return "taskSession";
    case OwnerApprovalPrompt::Kind::other:
      return "other";
  }
  return "other";
}

std::string_view word(AgentApproval policy) {
  switch (policy) {
    case AgentApproval::unlocked:
      return "unlocked";
    case AgentApproval::perRequest:
      return "perRequest";
    case AgentApproval::perEnvironment:
      return "perEnvironment";
  }
  return "perRequest";
}

std::optional<AgentApproval> agentApprovalOf(std::string_view text) {
  for (const AgentApproval policy :
       {AgentApproval::unlocked, AgentApproval::perRequest, AgentApproval::perEnvironment}) {
    if (word(policy) == text) return policy;
  }
  return std::nullopt;
}

namespace {

bool usesEnvironment(ApprovalRule rule) {
  return rule == ApprovalRule::environmentRead || rule == ApprovalRule::environmentRun;
}

}  // namespace

ApprovalResult Approvals::approve(const ApprovalQuestion& question) {
  if (!isCurrent(question.generation)) return ApprovalResult::denied;
  // What the policy lets pass was allowed by the owner before; nothing new is remembered for it.
  if (!mustAsk(question)) return ApprovalResult::byApplication;
  const ApprovalResult answer = ask(question);
  const base::Lock lock(mutex_);
  if (generation_ != question.generation || question.context.withdrawn.stop_requested()) return ApprovalResult::denied;
  if (answer == ApprovalResult::bySystem && usesEnvironment(question.rule)) {
    approvedEnvironments_.insert(question.environmentId);
  }
  return answer;
}

bool Approvals::mustAsk(const ApprovalQuestion& question) {
  if (question.rule == ApprovalRule::perAction) return true;
  switch (ports_.policy()) {
    case AgentApproval::unlocked:
      return !(ports_.trustedSession && ports_.trustedSession());
    case AgentApproval::perRequest:
      return true;
    case AgentApproval::perEnvironment: {
      const base::Lock lock(mutex_);
      return !(usesEnvironment(question.rule) && approvedEnvironments_.contains(question.environmentId));
    }
  }
  return true;
}

ApprovalResult Approvals::ask(const ApprovalQuestion& question) {
  if (ports_.provider != nullptr) {
    if (const auto answer = ports_.provider->ask(question.prompt, question.context)) {
      return *answer ? ApprovalResult::byApplication : ApprovalResult::denied;
    }
  }
  if (!isCurrent(question.generation) || question.context.withdrawn.stop_requested()) return ApprovalResult::denied;
  const SystemOwnerPrompt::Answer answer = ports_.system.ask(question.prompt, question.context);
  if (answer.unavailable) base::diagnose("agent", *answer.unavailable);
  return answer.granted ? ApprovalResult::bySystem : ApprovalResult::denied;
}

void Approvals::setGeneration(std::optional<std::int64_t> generation) {
  const base::Lock lock(mutex_);
  generation_ = generation;
  approvedEnvironments_.clear();
}

bool Approvals::isCurrent(std::int64_t generation) const {
  const base::Lock lock(mutex_);
  return generation_ == generation;
}

}  // namespace sorvane::agent
