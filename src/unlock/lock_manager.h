#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "unlock/back_off.h"
#include "unlock/executor.h"
#include "unlock/lock_state.h"
#include "unlock/owner_presence.h"
#include "unlock/passphrase_gate.h"
#include "unlock/session_signals.h"
#include "unlock/unlock_choices.h"
#include "unlock/unlock_settings.h"

namespace sorvane::unlock {

/// LockManager decides whether the vault is open. It asks the system whether its owner is there, checks the passphrase
/// where the settings want one, and closes the vault when the owner says so or the session goes away.
///
/// Everything here is called on the thread of `Dependencies::main`, and every callback is called there. Operations
/// return at once and tell their end through the callback, which is called exactly once, also when a lock or a later
/// attempt makes the operation stale: it then ends with `cancelled`. There is one manager; it outlives nothing that it
/// borrows.
class LockManager {
 public:
  struct Dependencies {
    std::function<UnlockHardware()> hardware;
    OwnerPresence& presence;
    UnlockConfigurationStore& store;
    /// What passphrases open. Closed whenever the vault is, after `onUnlockChange` was told.
    PassphraseGate& gate;
    std::function<std::optional<bool>()> managedFollowsSession;
    SessionSignals& signals;
    const base::Clock& now;
    Executor& main;
    /// Where passphrases are derived, one at a time.
    Executor& work;
    /// An answer at the application's own terminal, in the place of the system check where none can be had: for the
    /// first passphrase, settings without one, and the reset. nullptr: there is no such terminal.
    OwnerPresence* ownTerminal = nullptr;
  };

  /// How an attempt to unlock ended.
  struct Opened {
    bool operator==(const Opened&) const = default;
  };
  struct NeedsPassphrase {
    bool operator==(const NeedsPassphrase&) const = default;
  };
  /// failed(UnlockError), opened or needsPassphrase.
  using Outcome = std::variant<UnlockError, Opened, NeedsPassphrase>;
  using OutcomeReply = std::function<void(Outcome)>;

  /// How a change of the settings ended; nullopt: it was made.
  using ChangeReply = std::function<void(std::optional<UnlockError>)>;

  /// What the lock screen shows.
  struct SystemPrompt {
    UnlockChoices choices;
    bool operator==(const SystemPrompt&) const = default;
  };
  struct UnavailablePrompt {
    std::string sentence;
    bool operator==(const UnavailablePrompt&) const = default;
  };
  struct ResetPrompt {
    std::string cause;
    bool operator==(const ResetPrompt&) const = default;
  };
  struct PassphrasePrompt {
    bool operator==(const PassphrasePrompt&) const = default;
  };
  using Prompt = std::variant<SystemPrompt, UnavailablePrompt, ResetPrompt, PassphrasePrompt>;

  /// The button of the lock screen that was used: its first method, or the password beside it.
  enum class Button { primary, password };

  /// A passphrase that is to be set, typed twice.
  struct NewPassphrase {
    base::SecretText text, confirmation;
  };

  /// How long a passed system check stays good for a passphrase, and a store open for the reset of its settings.
  static constexpr std::chrono::minutes kLongestWait{2};

  explicit LockManager(Dependencies dependencies);
  ~LockManager();
  LockManager(const LockManager&) = delete;
  LockManager& operator=(const LockManager&) = delete;

  /// Called with the new state at every change of `isUnlocked`. Set before `start`.
  std::function<void(bool)> onUnlockChange;

  /// Probes the hardware, reads the settings and the session. May open the vault.
  void start();

  bool isUnlocked() const { return state_.isUnlocked(); }
  /// Whether the system check had a part in opening the vault as it is open now.
  bool openedBySystemCheck() const { return isUnlocked() && state_.systemCheckPassed; }
  const LockState& state() const { return state_; }
  const UnlockHardware& hardware() const { return hardware_; }
  const UnlockSettings& settings() const { return settings_; }
  bool checkingPassphrase() const { return checkingPassphrase_; }
  Prompt prompt() const;

  /// Asks the system. With requirement "only" nobody is asked and the passphrase is needed.
  void unlockWithSystem(Button button, OutcomeReply reply);
  /// Checks the passphrase, which with requirement "withSystem" comes within kLongestWait after the system check.
  void unlockWithPassphrase(base::SecretText passphrase, OutcomeReply reply);
  /// Closes the vault and makes every attempt under way stale.
  void lock();
  /// The same, and only the owner opens it again.
  void holdLocked();
  /// Takes back what is under way, a question or an attempt, which ends with `cancelled`. An open vault stays open.
  void giveUp();
  /// The wait before the next passphrase is taken, in whole seconds; 0: none.
  std::int64_t waitSeconds();
  /// A fresh check for a sensitive action: whether the owner said yes.
  void confirm(const std::string& reason, std::function<void(bool)> reply);

  // Changes of the settings, each confirmed by the owner first, one at a time. Where no system check can be had,
  // `current` is checked in its place when a passphrase is set, and the application's own terminal is asked when none
  // is.
  /// The first passphrase may be set while the vault is locked: where nothing else could ever open it there is no other
  /// way. The vault stays locked then, and asks for it.
  void setPassphrase(NewPassphrase passphrase, PassphraseRequirement requirement, ChangeReply reply);
  void changePassphrase(base::SecretText current, NewPassphrase passphrase, ChangeReply reply);
  /// Of a store that is sealed under it, the current passphrase is asked in any case, here and for the requirement.
  void removePassphrase(std::optional<base::SecretText> current, ChangeReply reply);
  /// `off` is removePassphrase. For another one a passphrase must be set; without it nothing changes and the reply is
  /// wrongPassphrase.
  void changeRequirement(PassphraseRequirement requirement, std::optional<base::SecretText> current, ChangeReply reply);
  void changeFollowsSession(bool follows, std::optional<base::SecretText> current, ChangeReply reply);
  /// Puts fresh settings in the place of those that cannot be read, and opens the vault. The passphrase stays where the
  /// store cannot be opened without it. Confirmed by the system or on the own terminal; a passphrase, which may have
  /// come from somebody else's connection, confirms nothing here.
  void reset(OutcomeReply reply);
  /// A backup was restored into the open vault: what the settings say of an earlier reset is over. Nothing else ends
  /// it. A failure to save leaves it over until the end of the process; vaultLocked: it is not over.
  std::optional<UnlockError> restored();

  // Another store in the place of one that nothing opens.
  /// nullopt when the store is sealed or out of reach; else what leads to its vault: vaultLocked, or why a reset does.
  /// cancelled: it is open.
  std::optional<UnlockError> obstacleToReplacing();
  /// Confirmed by the system, or on the own terminal, as a reset is.
  void confirmReplacement(const std::string& reason, ChangeReply reply);
  /// Calls `replace` while the gate is closed; the settings are read anew and the vault is opened. The owner confirmed
  /// it. cancelled when the session keeps it locked. What `replace` throws passes through.
  std::optional<UnlockError> replaceStore(const std::function<void()>& replace);

 private:
  using Passphrase = std::shared_ptr<const base::SecretText>;
  /// nullopt: go on.
  using Then = std::function<void(std::optional<UnlockError>)>;

  LockRules rules() const;
  /// What opens the vault now. The file of a sealed store may ask for a system check that cannot be had, and may have
  /// been changed: the passphrase is taken then, and the settings behind it decide.
  PassphraseRequirement asked() const;
  /// Ends what waited longer than kLongestWait for its other half. There is no timer: the next event finds out.
  void expire();
  bool isOverdue() const;
  void keepHold();
  void apply(LockEvent event);
  void followSession(const SessionState& session);
  /// Why no attempt can be begun now.
  std::optional<UnlockError> obstacle();
  /// The same without the session: why the settings cannot be relied on.
  std::optional<UnlockError> unreadable();
  /// Runs on the main thread, from wherever it is called, unless this object is gone by then.
  std::function<void(std::function<void()>)> toMain() const;
  /// Ends with `cancelled` once the generation is no longer that of now.
  Then whileFresh(Then then) const;

  /// The system where it can tell who is there, else the own terminal.
  void askOwner(const std::string& reason, Then then);
  void ask(OwnerPresence& presence, OwnerPresence::Check check, const std::string& reason, Then then);
  void answered(std::uint64_t question, OwnerPresence::Check check, const OwnerPresence::Answer& answer);
  void dropQuestion();

  using Verdict = PassphraseGate::Verdict;
  /// What trying a passphrase came to; of a right one, what the settings behind it say.
  struct Tried {
    PassphraseVerifier verifier;
    std::uint64_t generation = 0;
    Verdict verdict = Verdict::unknown;
    std::optional<UnlockConfiguration> stored;
    std::optional<UnlockError> unreadable;
  };
  /// On the thread of `work`, which may outlive the manager.
  static void tryPassphrase(PassphraseGate& gate, UnlockConfigurationStore& store, const base::SecretText& passphrase,
                            const UnlockConfiguration& configuration, Tried& tried);
  /// Goes on when the passphrase is right. A wrong one counts whatever became of the attempt meanwhile; a right one
  /// only while the attempt is fresh.
  void checkPassphrase(Passphrase passphrase, Then then);
  void checked(const Tried& tried, const Then& then);
  void countFailure();
  /// Goes by what the settings say: nullopt when the passphrase still opens the vault.
  std::optional<UnlockError> honour(const Tried& tried);
  /// Wipes the key of the store. What is in force of a sealed one is then what is known without it.
  void closeGate();
  void loadSettings();

  std::optional<UnlockError> refusal(const NewPassphrase& passphrase) const;
  /// Goes on when the owner confirmed with the system check, or with what stands in its place.
  void authorize(const std::string& reason, Passphrase current, Then then);
  /// The same, and for `current` to be right as well.
  void authorizeWith(const std::string& reason, Passphrase current, Then then);
  /// Derives the verifier and puts it in force with the requirement.
  void adopt(Passphrase passphrase, PassphraseRequirement requirement, ChangeReply reply);
  void release(ChangeReply reply);
  /// Runs `change` where passphrases are derived, and puts what it made of the configuration in force.
  void changeStore(UnlockConfiguration configuration, std::function<void(UnlockConfiguration&)> change,
                   ChangeReply reply);
  void storeChanged(UnlockConfiguration configuration, const std::optional<UnlockError>& error,
                    const ChangeReply& reply);
  std::optional<UnlockError> resetSettings();
  void save(UnlockConfiguration configuration, const ChangeReply& reply);

  // Constant after construction.
  const Dependencies dependencies_;
  // Of the main thread alone.
  UnlockHardware hardware_;
  UnlockSettings settings_;
  BackOff backOff_;
  LockState state_;
  /// When a system check was passed that a passphrase is to follow, or a store left open for a reset.
  std::optional<base::Instant> pendingSince_;
  bool sessionReported_ = false;
  bool checkingPassphrase_ = false;
  bool changingStore_ = false;
  std::uint64_t question_ = 0;  ///< the number of the last question
  OwnerPresence* asked_ = nullptr;
  Then questionReply_;  ///< empty when no question is open
  /// The generation, for those who work for it elsewhere.
  std::shared_ptr<std::atomic<std::uint64_t>> generation_ = std::make_shared<std::atomic<std::uint64_t>>(0);
  std::shared_ptr<const bool> alive_ = std::make_shared<const bool>(true);
};

}  // namespace sorvane::unlock
