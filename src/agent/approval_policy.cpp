#include "agent/approval_policy.h"

#include "base/diagnostics.h"
#include "vault/sealed_settings.h"
#include "vault/vault.h"

namespace sorvane::agent {

namespace {

ApprovalPolicy::Settings settingsOf(std::string_view text) {
  const std::size_t blank = text.find(' ');
  ApprovalPolicy::Settings settings;
  settings.approval = agentApprovalOf(text.substr(0, blank)).value_or(AgentApproval::perRequest);
  if (blank != std::string_view::npos) settings.approver = approverOf(text.substr(blank + 1)).value_or(Approver::any);
  return settings;
}

}  // namespace

ApprovalPolicy::Settings ApprovalPolicy::read(vault::SealedSettings& settings) {
  const auto stored = settings.load(vault::kApprovalPolicySetting);
  return stored ? settingsOf(stored->view()) : Settings{};
}

ApprovalPolicy::Settings ApprovalPolicy::current() {
  const std::string generation = vault_.generation();
  std::uint64_t seen = 0;
  {
    const base::Lock lock(mutex_);
    if (generation_ == generation) return cached_;
    seen = changes_;
  }
  Settings settings;
  try {
    settings = read(vault_.settings());
  } catch (const base::Error& error) {
    base::diagnose("agent", "the approval policy could not be read, so every request is asked: " + error.sentence());
    const base::Lock lock(mutex_);
    return {AgentApproval::perRequest, cached_.approver};
  }
  const base::Lock lock(mutex_);
  // What was read before a change that happened meanwhile is not kept.
  if (changes_ == seen) {
    generation_ = generation;
    cached_ = settings;
  }
  return settings;
}

void ApprovalPolicy::set(Settings settings) {
  std::string text(word(settings.approval));
  if (settings.approver != Approver::any) text.append(" ").append(word(settings.approver));
  vault_.settings().save(vault::kApprovalPolicySetting, text);
  const base::Lock lock(mutex_);
  ++changes_;
  generation_.reset();
}

}  // namespace sorvane::agent
