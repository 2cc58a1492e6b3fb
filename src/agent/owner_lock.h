#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "base/secret_text.h"

namespace sorvane::agent {

/// What may be told of the lock to any program of the user: no value and no name of the vault.
struct LockReport {
  bool isUnlocked = false;
  /// What opens the vault now: "open", "system", "passphrase", "reset" or "unavailable".
  std::string prompt;
  /// What the lock screen says: the methods in words, the cause of a reset, or why nothing opens it.
  std::string sentence;
  /// "off", "withSystem" or "only".
  std::string requirement;
  bool hasPassphrase = false;
  bool followsSession = false;
  /// There is a login manager that tells about the session: without one there is nothing to follow.
  bool sessionIsReported = false;
  /// The organization decided `followsSession`.
  bool isManaged = false;
  bool heldLocked = false;
  /// The system asks its owner now.
  bool isAsking = false;
  /// The wait before the next passphrase, whole seconds; 0: none.
  std::int64_t waitSeconds = 0;
  /// "embedded" or "secret-service", and whether its items lie sealed under the passphrase.
  std::string store;
  bool storeIsSealed = false;
  /// Why the system can check nobody; nullopt: it can.
  std::optional<std::string> systemCheckUnavailable;
  /// How far a restore of a backup is, in values; nullopt: none is under way.
  struct Progress {
    std::int64_t done = 0, total = 0;
  };
  std::optional<Progress> restoring;
  /// A paired phone is there whose yes opens the vault now.
  bool phoneUnlocks = false;
  /// Whole sentences: what this does not protect against, and what needs attention.
  std::vector<std::string> notices;
  std::string version;
  std::string supportFolder;
};

/// How a request about the lock ended.
struct LockOutcome {
  enum class Kind { done, needsPassphrase, refused };
  Kind kind = Kind::done;
  /// Of a refusal: its case as the unlock errors name it ("wait", "wrongPassphrase", "managed", …) and its sentence.
  /// Of what was done: what the owner should know of it, or empty.
  std::string code;
  std::string sentence;
};

/// Who asks: questions of the system are put in this process's name, and withdrawn when it is gone.
struct LockCaller {
  pid_t peer = 0;
  /// It was typed on the application's own terminal, whose word counts where the system can check nobody.
  bool isOwnTerminal = false;
  /// The process shows the system's questions itself, for the time of its request.
  bool answersItself = false;
  std::stop_token gone;
};

/// A passphrase that is to be set, typed twice.
struct TypedPassphrase {
  base::SecretText text, confirmation;
};

/// OwnerLock is the lock of the vault as the owner's programs reach it, whether the vault is open or not. Each call
/// blocks until its answer is there; any thread.
class OwnerLock {
 public:
  enum class Method { first, password };
  enum class Lock { untilNextTime, held };

  virtual ~OwnerLock() = default;
  virtual LockReport report() = 0;
  virtual LockOutcome unlockWithSystem(Method method, const LockCaller& caller) = 0;
  virtual LockOutcome unlockWithPassphrase(base::SecretText passphrase, const LockCaller& caller) = 0;
  virtual LockOutcome lock(Lock lock) = 0;
  /// `requirement` is "withSystem" or "only".
  virtual LockOutcome setPassphrase(TypedPassphrase passphrase, const std::string& requirement,
                                    const LockCaller& caller) = 0;
  virtual LockOutcome changePassphrase(base::SecretText current, TypedPassphrase passphrase,
                                       const LockCaller& caller) = 0;
  // `current` is needed where the system can check nobody and a passphrase is set, or for a change of what the store is
  // sealed under.
  virtual LockOutcome removePassphrase(std::optional<base::SecretText> current, const LockCaller& caller) = 0;
  virtual LockOutcome changeRequirement(const std::string& requirement, std::optional<base::SecretText> current,
                                        const LockCaller& caller) = 0;
  virtual LockOutcome changeFollowsSession(bool follows, std::optional<base::SecretText> current,
                                           const LockCaller& caller) = 0;
  virtual LockOutcome reset(const LockCaller& caller) = 0;
};

}  // namespace sorvane::agent
