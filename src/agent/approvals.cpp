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

std::string_view word(Approver approver) {
  switch (approver) {
    case Approver::terminal:
      return "terminal";
    case Approver::system:
      return "system";
    case Approver::phone:
      return "phone";
    case Approver::any:
      return "any";
  }
  return "any";
}

std::optional<Approver> approverOf(std::string_view text) {
  for (const Approver approver : {Approver::terminal, Approver::system, Approver::phone, Approver::any}) {
    if (word(approver) == text) return approver;
  }
  return std::nullopt;
}

namespace {

bool usesEnvironment(ApprovalRule rule) {
  return rule == ApprovalRule::environmentRead || rule == ApprovalRule::environmentRun;
}

}  // namespace

bool Approvals::isRemembered(const ApprovalQuestion& question) {
  const ApprovalContext& context = question.context;
  if (!context.isController) {
    return approvedEnvironments_.contains({question.environmentId, context.callerIdentity, 0, 0});
  }
  for (const base::ProcessInfo& process : context.processes) {
    if (approvedEnvironments_.contains(
            {question.environmentId, context.callerIdentity, process.pid, process.startedAt})) {
      return true;
    }
  }
  return false;
}

void Approvals::enter(const ApprovalQuestion& question) {
  // The owner at their own command line is not held back.
  if (question.context.isController) return;
  const base::Instant now = ports_.clock.instant();
  const base::Lock lock(mutex_);
  if (generation_ != question.generation) return;
  Asker& asker = askers_[question.context.callerIdentity];
  if (now < asker.refusedUntil) {
    throw ApprovalRefused(
        "The owner denied three requests of this agent connection within a minute, so sorvane does not ask them again "
        "for a minute. Nothing was shared. Talk with the user before trying again.");
  }
  if (asker.waiting >= kMostWaiting) {
    throw ApprovalRefused(
        "Five requests of this agent connection are waiting for the owner already. Nothing was shared. Wait for their "
        "answers before asking more.");
  }
  ++asker.waiting;
}

void Approvals::leave(const ApprovalQuestion& question, bool denied) {
  if (question.context.isController) return;
  const base::Instant now = ports_.clock.instant();
  const base::Lock lock(mutex_);
  // A question of an earlier generation was counted in a table that is gone.
  const auto found = askers_.find(question.context.callerIdentity);
  if (generation_ != question.generation || found == askers_.end()) return;
  Asker& asker = found->second;
  --asker.waiting;
  std::erase_if(asker.denials, [&](base::Instant at) { return now - at >= kDenialWindow; });
  if (denied) asker.denials.push_back(now);
  if (asker.denials.size() >= kMostDenials) {
    asker.denials.clear();
    asker.refusedUntil = now + kDenialWindow;
  }
}

/// A question's place among those of its connection.
class Approvals::Turn {
 public:
  Turn(Approvals& approvals, const ApprovalQuestion& question) : approvals_(approvals), question_(question) {
    approvals_.enter(question_);
  }
  ~Turn() { approvals_.leave(question_, denied); }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  bool denied = false;

 private:
  Approvals& approvals_;
  const ApprovalQuestion& question_;
};

ApprovalResult Approvals::approve(const ApprovalQuestion& question) {
  if (!isCurrent(question.generation)) return ApprovalResult::denied;
  // What the policy lets pass was allowed by the owner before; nothing new is remembered for it.
  if (!mustAsk(question)) return ApprovalResult::byApplication;
  Turn turn(*this, question);
  bool saidNo = false;
  const ApprovalResult answer = ask(question, saidNo);
  const base::Lock lock(mutex_);
  if (generation_ != question.generation || question.context.withdrawn.stop_requested()) return ApprovalResult::denied;
  turn.denied = saidNo;
  if (answer == ApprovalResult::bySystem && usesEnvironment(question.rule)) {
    Remembered remembered{question.environmentId, question.context.callerIdentity, 0, 0};
    const auto& chain = question.context.processes;
    if (question.context.isController && !chain.empty()) {
      const base::ProcessInfo& anchor = chain.size() > 1 ? chain[1] : chain[0];
      remembered.process = anchor.pid;
      remembered.startedAt = anchor.startedAt;
    }
    if (!question.context.isController || !chain.empty()) approvedEnvironments_.insert(remembered);
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
      return !(usesEnvironment(question.rule) && isRemembered(question));
    }
  }
  return true;
}

ApprovalResult Approvals::ask(const ApprovalQuestion& question, bool& saidNo) {
  const Approver approver = question.whoseYesCounts ? *question.whoseYesCounts
                            : ports_.approver       ? ports_.approver()
                                                    : Approver::any;
  if (ports_.provider != nullptr && approver != Approver::system) {
    ApprovalContext context = question.context;
    context.whoseYesCounts = approver;
    if (const auto answer = ports_.provider->ask(question.prompt, context)) {
      saidNo = !*answer;
      return *answer ? ApprovalResult::byApplication : ApprovalResult::denied;
    }
  }
  if (!isCurrent(question.generation) || question.context.withdrawn.stop_requested()) return ApprovalResult::denied;
  if (approver != Approver::system && approver != Approver::any) return ApprovalResult::denied;
  const SystemOwnerPrompt::Answer answer = ports_.system.ask(question.prompt, question.context);
  if (answer.unavailable) base::diagnose("agent", *answer.unavailable);
  saidNo = !answer.granted && !answer.unavailable;
  return answer.granted ? ApprovalResult::bySystem : ApprovalResult::denied;
}

void Approvals::setGeneration(std::optional<std::int64_t> generation) {
  const base::Lock lock(mutex_);
  generation_ = generation;
  approvedEnvironments_.clear();
  askers_.clear();
}

bool Approvals::isCurrent(std::int64_t generation) const {
  const base::Lock lock(mutex_);
  return generation_ == generation;
}

}  // namespace sorvane::agent
