#pragma once

#include <filesystem>
#include <functional>

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
#include "app/backups.h"
#include "app/local_proxy.h"
#include "app/stores.h"
#include "base/clock.h"
#include "base/files.h"
#include "platform/adapters.h"
#include "vault/vault.h"

namespace sorvane::app {

/// OpenVault is everything that exists only while the vault is open, built in the order of its members and taken down
/// the other way: with it every key and value in memory goes. The constructor opens the vault of the support folder;
/// one that does not open is said on standard error and served as such. One thread at a time.
class OpenVault {
 public:
  /// Everything here outlives the open vault.
  struct Ports {
    std::filesystem::path supportFolder;
    base::Files& files;
    const base::Clock& clock;
    Stores& stores;
    agent::ProcessHost& host;
    agent::Notifier& notifier;
    agent::ApprovalProvider& approver;
    agent::SystemOwnerPrompt& ownerPrompt;
    agent::OwnerPhones& phones;
    std::function<std::optional<std::string>()> systemCheckUnavailable;
    /// Whether the owner's recent presence is vouched for.
    std::function<bool()> trustedSession;
    /// Only the owner's own command line is served until a backup was restored.
    bool agentsHeldBack = false;
    /// Told how far a restore is, and that a backup is in place.
    vault::Progress restoring;
    std::function<void()> restored;
    agent::ApplicationState state;
  };
  explicit OpenVault(Ports ports);
  OpenVault(const OpenVault&) = delete;
  OpenVault& operator=(const OpenVault&) = delete;
  /// Ends what is under way, for which it waits.
  ~OpenVault() {
    server_.stop();
    proxy_.stop();
    sessions_.close();
  }

  /// Opens the endpoint; false when that failed, with the reason on standard error.
  bool start();

 private:
  /// Calls the work while no request but the present one is served.
  void alone(const std::function<void()>& work);
  void startProxy();
  /// What an interrupted move of the values left to do.
  void finishMove();

  Stores& stores_;

  // The vault.
  agent::TaskSessions sessions_;
  vault::Vault vault_;

  // The local model proxy.
  LocalProxy proxy_;

  // Who may ask, and what the owner may do.
  agent::GrantStore grants_;
  agent::ApprovalPolicy policy_;
  const std::unique_ptr<agent::Clipboard> clipboard_ = platform::makeClipboard();
  agent::CopiedValue copied_{*clipboard_};
  clients::Connections connections_;
  ApplicationActions actions_;
  Backups backups_;
  agent::Jobs jobs_;
  agent::OwnerActionHandlers ownerActions_;

  // The endpoint.
  agent::CommandRunner runner_;
  agent::KeyEnvFiles keyFiles_;
  agent::AgentServer server_;
};

}  // namespace sorvane::app
