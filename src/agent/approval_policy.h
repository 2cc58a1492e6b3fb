#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "agent/approval.h"
#include "base/mutex.h"

namespace sorvane::vault {
class SealedSettings;
class Vault;
}  // namespace sorvane::vault

namespace sorvane::agent {

/// ApprovalPolicy is the owner's policy for the agent operations and whose yes counts, kept in the sealed setting
/// "approval-policy" as one word or two, and read once for each generation of the vault. One that is missing or cannot
/// be read is perRequest and any. Any thread.
class ApprovalPolicy {
 public:
  explicit ApprovalPolicy(vault::Vault& vault) : vault_(vault) {}
  struct Settings {
    AgentApproval approval = AgentApproval::perRequest;
    Approver approver = Approver::any;
  };
  /// As it is kept; nothing kept is the usual. Throws vault::SettingError when it cannot be read.
  static Settings read(vault::SealedSettings& settings);
  /// Does not throw.
  Settings current();
  /// Throws vault::SettingError when it could not be saved; the earlier policy then stays.
  void set(Settings settings);

 private:
  vault::Vault& vault_;
  // Guarded. A leaf.
  base::Mutex mutex_;
  std::optional<std::string> generation_ GUARDED_BY(mutex_);
  std::uint64_t changes_ GUARDED_BY(mutex_) = 0;
  Settings cached_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::agent
