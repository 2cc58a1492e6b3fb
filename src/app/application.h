#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "agent/approval.h"
#include "agent/approval_policy.h"
#include "agent/command_runner.h"
#include "agent/copied_value.h"
#include "agent/grant_store.h"
#include "agent/jobs.h"
#include "agent/key_env_files.h"
#include "agent/owner_action_handlers.h"
#include "agent/process_host.h"
#include "agent/server.h"
#include "agent/task_sessions.h"
#include "app/application_actions.h"
#include "app/local_proxy.h"
#include "app/options.h"
#include "app/stores.h"
#include "base/clock.h"
#include "base/files.h"
#include "base/lock_file.h"
#include "platform/linux/absent_owner_prompt.h"
#include "platform/linux/clipboard.h"
#include "platform/linux/notifier.h"
#include "vault/vault.h"

namespace sorvane::app {

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
  ~Application() {
    server_.stop();
    proxy_.stop();
    sessions_.close();
  }

  /// Opens the endpoint; false when that failed, with the reason on standard error.
  bool start();

 private:
  // The support folder.
  base::SystemFiles files_;
  base::SystemClock clock_;
  base::LockFile lock_;

  // The vault.
  Stores stores_;
  agent::TaskSessions sessions_{clock_};
  vault::Vault vault_;

  // The local model proxy.
  platform::FreedesktopNotifier notifier_;
  LocalProxy proxy_;

  // Who may ask, and what the owner may do.
  agent::GrantStore grants_;
  agent::ApprovalPolicy policy_;
  platform::SystemClipboard clipboard_;
  agent::CopiedValue copied_{clipboard_};
  clients::Connections connections_;
  ApplicationActions actions_;
  agent::Jobs jobs_;
  agent::OwnerActionHandlers ownerActions_;

  // The endpoint.
  platform::AbsentOwnerPrompt ownerPrompt_;
  agent::CommandRunner runner_;
  agent::KeyEnvFiles keyFiles_;
  agent::AgentServer server_;
};

}  // namespace sorvane::app
