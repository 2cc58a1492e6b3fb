#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "agent/approval.h"
#include "agent/approval_policy.h"
#include "agent/command_runner.h"
#include "agent/grant_store.h"
#include "agent/jobs.h"
#include "agent/owner_action_handlers.h"
#include "agent/process_host.h"
#include "agent/server.h"
#include "app/application_actions.h"
#include "app/options.h"
#include "app/stores.h"
#include "base/clock.h"
#include "base/files.h"
#include "base/lock_file.h"
#include "platform/linux/absent_owner_prompt.h"
#include "platform/linux/clipboard.h"
#include "platform/linux/notifier.h"
#include "vault/revocation.h"
#include "vault/vault.h"

namespace sorvane::app {

/// NoTaskSessions stands where task sessions will be ended once they are served: there are none.
class NoTaskSessions final : public vault::SessionRevoker {
 public:
  void revoke(const vault::Revocation&) override {}
};

/// Application is everything that runs in `sorvaned`, built in the order of its members and taken down the other way.
/// The constructor opens the vault of the support folder and throws base::Error when the folder or the choice of store
/// does not allow that; a vault that does not open is said on standard error and served as such.
class Application {
 public:
  struct Setting {
    std::filesystem::path supportFolder;
    std::optional<vault::StoreKind> store;
    bool memoryIsLocked = true;
  };
  /// `host` and `approver` must outlive the application; `approver` is nullptr without a terminal.
  Application(const Setting& setting, agent::ProcessHost& host, agent::ApprovalProvider* approver);
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;
  ~Application() { server_.stop(); }

  /// Opens the endpoint; false when that failed, with the reason on standard error.
  bool start();

 private:
  // The support folder.
  base::SystemFiles files_;
  base::SystemClock clock_;
  base::LockFile lock_;

  // The vault.
  Stores stores_;
  NoTaskSessions sessions_;
  vault::Vault vault_;

  // Who may ask, and what the owner may do.
  agent::GrantStore grants_;
  agent::ApprovalPolicy policy_;
  platform::SystemClipboard clipboard_;
  ApplicationActions actions_;
  agent::Jobs jobs_;
  agent::OwnerActionHandlers ownerActions_;

  // The endpoint.
  platform::FreedesktopNotifier notifier_;
  platform::AbsentOwnerPrompt ownerPrompt_;
  agent::CommandRunner runner_;
  agent::AgentServer server_;
};

}  // namespace sorvane::app
