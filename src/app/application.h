#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/owner_server.h"
#include "agent/process_host.h"
#include "agent/terminal_approver.h"
#include "app/lock_screen.h"
#include "app/locked_restore.h"
#include "app/open_vault.h"
#include "app/owner_asker.h"
#include "app/phone_link.h"
#include "app/phones.h"
#include "app/presence_prompt.h"
#include "app/stores.h"
#include "app/trusted_session.h"
#include "app/vault_lock.h"
#include "base/clock.h"
#include "base/files.h"
#include "base/lock_file.h"
#include "platform/adapters.h"

namespace sorvane::app {

/// Application is everything that runs in `sorvaned`, built in the order of its members and taken down the other way:
/// the lock of the vault and what reaches it live from start to end, the vault itself only while it is open. The
/// constructor throws base::Error when the folder or the choice of store does not allow it.
class Application {
 public:
  struct Setting {
    std::filesystem::path supportFolder;
    std::optional<vault::StoreKind> store;
    bool memoryIsLocked = true;
  };
  /// `host` and `approver` must outlive the application; `approver` is nullptr without a terminal.
  Application(const Setting& setting, agent::ProcessHost& host, agent::TerminalApprover* approver);
  ~Application();
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  /// Opens the owner's socket, and the vault where nothing keeps it locked; false when the socket could not be opened,
  /// with the reason on standard error.
  bool start();
  /// Shows the lock on the terminal, where there is one.
  void showLock();

 private:
  /// The terminal's approver, which shows that the owner is there.
  class Approver;

  void open(bool afterReset);
  void close();
  agent::ApplicationState state() const;
  OpenVault::Ports vaultPorts(bool afterReset);
  VaultLock::Ports lockPorts();

  // Constant after construction.
  const Setting setting_;
  agent::ProcessHost& host_;
  const bool hasTerminal_;

  // The support folder.
  base::SystemFiles files_;
  base::SystemClock clock_;
  base::LockFile lockFile_;
  Stores stores_;

  // The owner.
  const std::unique_ptr<agent::Notifier> notifier_ = platform::makeNotifier();
  TrustedSession trusted_{clock_};
  // Gone before the lock's threads, to which theirs report.
  std::unique_ptr<unlock::SessionSignals> session_;
  std::unique_ptr<platform::AskingPresence> presence_;
  const std::unique_ptr<platform::AskingPresence> approvalPresence_;
  PresencePrompt ownerPrompt_;
  const std::unique_ptr<Approver> approver_;
  // Its server tells the lock who came and went until it is closed, and the lock asks through it.
  PhoneLink phoneLink_;
  Phones phones_{phoneLink_, clock_};
  OwnerAsker asker_;

  // What exists while the vault is open. Of the lock's thread.
  std::unique_ptr<OpenVault> vault_;

  // The lock.
  std::unique_ptr<LockScreen> screen_;
  const bool wasNew_;  ///< at the start: no vault was ever opened here
  VaultLock lock_;
  LockedRestore lockedRestore_{{files_, clock_, stores_, lock_}};
  std::optional<agent::OwnerServer> ownerServer_;
};

}  // namespace sorvane::app
