#pragma once

#include <cstdint>

#include "unlock/unlock_configuration.h"

namespace sorvane::unlock {

// How the vault opens and closes. `nextState` below is the one place that decides it.
//
//              systemAsked (off, withSystem)        systemGranted (withSystem)
//   +--------+ ----------------------------> asking ---------------------------> needsPassphrase
//   |        | <---- attemptFailed ----------  |    <---- attemptFailed: to locked ----  |
//   | locked |                                 | systemGranted (off)                     | passphraseGiven
//   |        | passphraseGiven (only)          v                                         v
//   |        | ------------------------------+ open <------ passphraseRight ------ checkingPassphrase
//   +--------+                                | ^                                        ^  |
//     ^  |  ^                                 | | resetGranted, from anywhere            |  | attemptFailed: to locked
//     |  |  +--- lock, hold, resetFailed, ----+ |                                        |  v
//     |  |       sessionLost if following       |     locked -- passphraseGiven (only) --+
//     |  +-- sessionBack: off, following, reported by the login manager, not held
//     +----- the same four, and givenUp, from every other phase
//
// A vault does not open while its settings cannot be read, nor while it follows a session that is not available. What
// has no arrow changes nothing.
enum class LockPhase { locked, asking, needsPassphrase, checkingPassphrase, open };

enum class LockEvent {
  systemAsked,
  systemGranted,
  passphraseGiven,
  passphraseRight,
  attemptFailed,
  lock,
  hold,     ///< lock, and stay so until the owner opens the vault himself
  givenUp,  ///< whoever asked is gone; an open vault stays open
  sessionLost,
  sessionBack,
  resetGranted,
  resetFailed,  ///< confirmed, and could not be saved; one that the owner declined changed nothing and is none
};

/// What the settings and the system say at the time of an event.
struct LockRules {
  PassphraseRequirement requirement = PassphraseRequirement::off;
  bool followsSession = false;
  bool settingsReadable = true;
  bool sessionReported = false;  ///< there is a login manager that tells about the session
};

struct LockState {
  LockPhase phase = LockPhase::locked;
  bool systemCheckPassed = false;  ///< in the present attempt, or in the one that opened the vault
  bool sessionAvailable = true;
  bool heldLocked = false;
  /// Advanced by everything that makes an earlier attempt stale: every change of the phase, every `lock` and
  /// every `givenUp`.
  std::uint64_t generation = 0;
  bool operator==(const LockState&) const = default;

  bool isUnlocked() const { return phase == LockPhase::open; }
};

LockState nextState(const LockState& state, LockEvent event, const LockRules& rules);

}  // namespace sorvane::unlock
