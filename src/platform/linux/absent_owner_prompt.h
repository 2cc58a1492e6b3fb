#pragma once

#include "agent/approval.h"

namespace sorvane::platform {

/// AbsentOwnerPrompt stands where the system has no prompt for its owner that could be asked: every question is denied
/// with that reason. Any thread.
class AbsentOwnerPrompt final : public agent::SystemOwnerPrompt {
 public:
  Answer ask(const agent::OwnerApprovalPrompt& prompt, const agent::ApprovalContext& context) override;
};

}  // namespace sorvane::platform
