#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "agent/owner_lock.h"
#include "app/phone_questions.h"
#include "app/stores.h"
#include "app/trusted_session.h"
#include "base/clock.h"
#include "base/mutex.h"
#include "unlock/lock_manager.h"
#include "unlock/serial_queue.h"

namespace sorvane::app {

/// VaultLock runs the lock manager on a thread of its own, and lends it to those who wait for an answer: the owner's
/// socket and the lock screen on the terminal.
///
/// `open` and `close` are called on that thread, in turns; when an unlock was answered the vault is open, and when the
/// session's going was handled it is closed.
class VaultLock final : public agent::OwnerLock {
 public:
  struct Ports {
    std::filesystem::path supportFolder;
    Stores& stores;
    const base::Clock& clock;
    TrustedSession& trusted;
    unlock::OwnerPresence& presence;
    /// Their yes unlocks the vault where the system's check does; never in the place of the passphrase.
    PhoneQuestions& phones;
    /// Tells `presence` for whom it asks from now on.
    std::function<void(const agent::LockCaller& caller)> askFor;
    unlock::OwnerPresence* ownTerminal;  ///< nullptr without a terminal
    unlock::SessionSignals& signals;
    std::function<std::optional<bool>()> managedFollowsSession;
    std::function<unlock::UnlockHardware()> hardware;
    /// Called before and after a replacement of the store, whatever came of it.
    std::function<void()> replacing;
    std::function<void()> replaced;
    /// `afterReset`: the settings of the lock had to be made anew, so agents are not to use the vault.
    std::function<void(bool afterReset)> open;
    std::function<void()> close;
    /// Told on that thread when the lock screen would show something else.
    std::function<void()> onChange;
    /// No vault was ever opened here: there is nothing yet that a passphrase typed on the own terminal could take over.
    bool isNew = false;
  };
  explicit VaultLock(Ports ports);
  /// After `stop`.
  ~VaultLock() override;
  VaultLock(const VaultLock&) = delete;
  VaultLock& operator=(const VaultLock&) = delete;

  /// Reads the settings and the session; opens the vault where they say so.
  void start();
  /// Locks, and waits until the vault is closed. Nothing is asked of the lock afterwards, and it asks nobody any more.
  void stop();
  /// A new vault on a terminal does not open with the session before its owner was offered a passphrase: that was done.
  void wasOffered();
  /// A phone came or went. Any thread.
  void lookAgain();
  /// Whether what is to be confirmed was typed on the application's own terminal; for `ownTerminal` within `ask`.
  bool isAskedOnTerminal() const { return isOnTerminal_; }

  /// A backup was restored into the open vault: what the settings say of an earlier reset is over. Any thread; waits
  /// for nobody, since a lock waits for the request that restored.
  void noteRestored();
  /// How far a restore is; without a total it has ended. Any thread.
  void noteRestoring(std::int64_t done, std::int64_t total);

  // What replaces a vault that nothing opens (vault_lock_replace.cpp).
  /// Why the vault is not to be replaced whole; nullopt: nothing opens it.
  std::optional<agent::LockOutcome> whyNotReplaced();
  /// Asks the owner, as a reset does.
  agent::LockOutcome confirmReplacement(const std::string& reason, const agent::LockCaller& caller);
  /// Calls `replace` while the store is closed, reads the settings of the new one, and opens the vault where its
  /// owner's session is there. What `replace` throws passes through.
  agent::LockOutcome replaceStore(const std::function<void()>& replace);

  agent::LockReport report() override;
  agent::LockOutcome unlockWithSystem(Method method, const agent::LockCaller& caller) override;
  agent::LockOutcome unlockWithPassphrase(base::SecretText passphrase, const agent::LockCaller& caller) override;
  agent::LockOutcome lock(Lock lock) override;
  agent::LockOutcome setPassphrase(agent::TypedPassphrase passphrase, const std::string& requirement,
                                   const agent::LockCaller& caller) override;
  agent::LockOutcome changePassphrase(base::SecretText current, agent::TypedPassphrase passphrase,
                                      const agent::LockCaller& caller) override;
  agent::LockOutcome removePassphrase(std::optional<base::SecretText> current,
                                      const agent::LockCaller& caller) override;
  agent::LockOutcome changeRequirement(const std::string& requirement, std::optional<base::SecretText> current,
                                       const agent::LockCaller& caller) override;
  agent::LockOutcome changeFollowsSession(bool follows, std::optional<base::SecretText> current,
                                          const agent::LockCaller& caller) override;
  agent::LockOutcome reset(const agent::LockCaller& caller) override;

 private:
  using Reply = std::function<void(agent::LockOutcome)>;
  /// Begins something on the manager's thread, and waits for its reply or for the caller to go.
  agent::LockOutcome wait(const agent::LockCaller& caller, std::function<void(const Reply& reply)> begin);
  agent::LockOutcome outcome(const unlock::LockManager::Outcome& outcome);
  /// Of a change of the settings.
  agent::LockOutcome outcome(const std::optional<unlock::UnlockError>& error) const;
  agent::LockReport reportNow();
  void followed(bool isUnlocked);
  void endReset();
  /// Who asks now, for a phone to show.
  std::string requestor() const;
  /// Tells `onChange` when there is something to tell.
  void announce();

  class Watched;
  class Presence;
  /// What the lock screen shows.
  struct Screen {
    bool isUnlocked = false, isAsking = false;
    unlock::LockManager::Prompt prompt;
    bool operator==(const Screen&) const = default;
  };

  const Ports ports_;
  const std::unique_ptr<Watched> signals_;
  const std::unique_ptr<Presence> presence_;
  std::atomic<std::int64_t> valuesRestored_ = 0, valuesToRestore_ = 0;
  // Of the manager's thread.
  bool isOnTerminal_ = false;
  bool mayAskPhones_ = false;  ///< of the unlock that was asked for last
  pid_t asking_ = 0;           ///< the process that asked last
  std::uint64_t begun_ = 0;    ///< the number of the last request
  bool isNew_ = false;
  bool isRestored_ = false;  ///< and the settings do not say so yet
  std::optional<Screen> screen_;
  // The manager is made and destroyed on `main_`, and both queues end before what it borrows.
  std::unique_ptr<unlock::LockManager> manager_;
  unlock::SerialQueue work_;
  unlock::SerialQueue main_;
};

}  // namespace sorvane::app
