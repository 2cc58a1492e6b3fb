#pragma once

#include <optional>
#include <string>

#include "agent/approval.h"
#include "base/mutex.h"

namespace sorvane::vault {
class Vault;
}

namespace sorvane::agent {

/// ApprovalPolicy is the owner's policy for the agent operations, kept in the sealed setting "approval-policy" and read
/// once for each generation of the vault. One that is missing or cannot be read is perRequest. Any thread.
class ApprovalPolicy {
 public:
  explicit ApprovalPolicy(vault::Vault& vault) : vault_(vault) {}
  /// Does not throw.
  AgentApproval current();
  /// Throws vault::SettingError when it could not be saved; the earlier policy then stays.
  void set(AgentApproval policy);

 private:
  vault::Vault& vault_;
  // Guarded. A leaf.
  base::Mutex mutex_;
  std::optional<std::string> generation_ GUARDED_BY(mutex_);
  AgentApproval cached_ GUARDED_BY(mutex_) = AgentApproval::perRequest;
};

}  // namespace sorvane::agent
