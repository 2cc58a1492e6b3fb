#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "base/error.h"

namespace sorvane::unlock {

/// A system check that failed: the code of OwnerPresence::Failed, and whether it was the password prompt that was
/// meant.
struct SystemCheckFailure {
  int code = 0;
  bool passwordPrompt = false;
  std::string explanation{};  ///< as in OwnerPresence::Failed; shown after the sentence of a code without its own
  bool operator==(const SystemCheckFailure&) const = default;
};

/// How a failure of the system check reads where the person is not being asked, such as in diagnostics.
std::string diagnosticText(const SystemCheckFailure& failure);

/// UnlockError is why the vault stayed locked or a setting of its lock unchanged. Each case has one sentence; two
/// errors are equal when case and contents are.
class UnlockError : public base::Error {
 public:
  enum class Case {
    wait,
    storage,
    systemCheckFailed,
    vaultLocked,
    cancelled,
    wrongPassphrase,
    tooShort,
    mismatch,
    managed,
    settingsMissing,
    settingsDamaged,
    vaultKeyMismatch,
  };

  /// For every case that carries nothing.
  explicit UnlockError(Case kind);
  /// `until` is when the next try is taken; the sentence says how long that is from `now`.
  static UnlockError wait(base::Date until, std::chrono::system_clock::time_point now);
  /// `cause` is the sentence of the failure below; it is for diagnostics and not part of what is shown.
  static UnlockError storage(const std::string& cause);
  /// `storage` of a store that nothing here opens again; `sentence` says so and what to do, and is what is shown.
  static UnlockError storeLost(const std::string& sentence);
  static UnlockError systemCheckFailed(const SystemCheckFailure& failure);
  /// `systemCheckFailed` where nobody can be asked; `sentence` says what to do about it, and is what is shown.
  static UnlockError systemCheckMissing(const std::string& sentence);
  /// `cancelled` with a sentence of its own.
  static UnlockError staysLocked(std::string_view sentence);

  Case kind() const { return kind_; }
  const std::optional<base::Date>& until() const { return until_; }
  const std::optional<SystemCheckFailure>& failure() const { return failure_; }
  /// Empty but for `storage`.
  const std::string& cause() const { return cause_; }
  bool isStoreLost() const { return storeLost_; }
  bool operator==(const UnlockError& other) const;

 private:
  UnlockError(Case kind, const std::string& sentence) : Error(sentence), kind_(kind) {}

  Case kind_;
  std::optional<base::Date> until_;
  std::optional<SystemCheckFailure> failure_;
  std::string cause_;
  bool storeLost_ = false;
};

/// What `wait` shows at `now`; for a prompt that counts down.
std::string waitSentence(base::Date until, std::chrono::system_clock::time_point now);

/// The least number of characters of a new passphrase.
inline constexpr std::size_t kMinPassphraseCharacters = 8;

// What the lock screen says beside an error.
inline constexpr std::string_view kResetExplanation =
    "You can still unlock and restore a backup. sorvane turns off the passphrase and business mode, and agents cannot "
    "use the vault until you restore. If you did not expect this, something on this Mac changed sorvane’s Keychain "
    "items.";
inline constexpr std::string_view kResetConfirmation =
    "Your Mac will check it is you. sorvane then turns off the passphrase and business mode and opens. Your secrets "
    "are not changed. Set a new passphrase in Settings > Unlock.";
inline constexpr std::string_view kMethodExplanation =
    "The lock screen offers the first available method. Use password is always one click away.";
inline constexpr std::string_view kSessionUnavailable =
    "Your session is locked, asleep or not in front. sorvane stays locked until you are back in it.";

inline constexpr std::string_view kLockFileChanged =
    "The file of sorvane’s lock asked less than its settings do: somebody may have changed it. sorvane stays locked "
    "and "
    "goes by its settings now. Unlock it again.";

// Why the owner is asked, as the system's prompt shows it.
inline constexpr std::string_view kUnlockReason = "Unlock sorvane";
inline constexpr std::string_view kSetReason = "Set an sorvane passphrase";
inline constexpr std::string_view kChangeReason = "Change your sorvane passphrase";
inline constexpr std::string_view kRemoveReason = "Remove your sorvane passphrase";
inline constexpr std::string_view kRequirementReason = "Change what opens sorvane";
inline constexpr std::string_view kFollowReason = "Open sorvane whenever your Mac is unlocked";
inline constexpr std::string_view kStopFollowingReason = "Stop opening sorvane with your Mac session";
inline constexpr std::string_view kResetReason = "Reset sorvane’s unlock settings";
inline constexpr std::string_view kReplaceReason = "Set sorvane’s locked vault aside and open a new one from a backup";

}  // namespace sorvane::unlock
