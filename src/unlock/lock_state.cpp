#include "unlock/lock_state.h"

namespace sorvane::unlock {
namespace {

LockState closed(LockState state) {
  state.phase = LockPhase::locked;
  state.systemCheckPassed = false;
  return state;
}

LockState held(LockState state) {
  state = closed(state);
  state.heldLocked = true;
  return state;
}

enum class By { owner, session };

LockState opened(LockState state, By by) {
  state.phase = LockPhase::open;
  if (by == By::owner) state.heldLocked = false;
  return state;
}

bool mayOpen(const LockState& state, const LockRules& rules) {
  return rules.settingsReadable && (state.sessionAvailable || !rules.followsSession);
}

LockState afterGrant(LockState state, const LockRules& rules) {
  if (!mayOpen(state, rules)) return closed(state);
  state.systemCheckPassed = true;
  switch (rules.requirement) {
    case PassphraseRequirement::off:
      return opened(state, By::owner);
    case PassphraseRequirement::withSystem:
      state.phase = LockPhase::needsPassphrase;
      return state;
    case PassphraseRequirement::only:
      break;
  }
  return closed(state);
}

bool takesPassphrase(const LockState& state, const LockRules& rules) {
  if (!mayOpen(state, rules)) return false;
  switch (rules.requirement) {
    case PassphraseRequirement::off:
      return false;
    case PassphraseRequirement::withSystem:
      return state.phase == LockPhase::needsPassphrase && state.systemCheckPassed;
    case PassphraseRequirement::only:
      return state.phase == LockPhase::locked;
  }
  return false;
}

bool opensWithSession(const LockState& state, const LockRules& rules) {
  return state.phase == LockPhase::locked && !state.heldLocked && mayOpen(state, rules) && rules.followsSession &&
         rules.sessionReported && rules.requirement == PassphraseRequirement::off;
}

bool asksSystem(const LockState& state, const LockRules& rules) {
  return mayOpen(state, rules) && rules.requirement != PassphraseRequirement::only && state.phase != LockPhase::open &&
         state.phase != LockPhase::checkingPassphrase;
}

/// The state without its new generation.
LockState changed(LockState state, LockEvent event, const LockRules& rules) {
  switch (event) {
    case LockEvent::systemAsked:
      if (!asksSystem(state, rules)) return state;
      state = closed(state);
      state.phase = LockPhase::asking;
      return state;
    case LockEvent::systemGranted:
      return state.phase == LockPhase::asking ? afterGrant(state, rules) : state;
    case LockEvent::passphraseGiven:
      if (takesPassphrase(state, rules)) state.phase = LockPhase::checkingPassphrase;
      return state;
    case LockEvent::passphraseRight:
      if (state.phase != LockPhase::checkingPassphrase) return state;
      return mayOpen(state, rules) ? opened(state, By::owner) : closed(state);
    case LockEvent::attemptFailed:
    case LockEvent::givenUp:
      return state.isUnlocked() ? state : closed(state);
    case LockEvent::lock:
      return closed(state);
    case LockEvent::hold:
    case LockEvent::resetFailed:
      return held(state);
    case LockEvent::sessionLost:
      state.sessionAvailable = false;
      return rules.followsSession ? closed(state) : state;
    case LockEvent::sessionBack:
      state.sessionAvailable = true;
      return opensWithSession(state, rules) ? opened(state, By::session) : state;
    case LockEvent::resetGranted:
      // Confirmed, but not always by the system: nothing goes on to count as its check.
      state = closed(state);
      return mayOpen(state, rules) ? opened(state, By::owner) : state;
  }
  return state;
}

}  // namespace

LockState nextState(const LockState& state, LockEvent event, const LockRules& rules) {
  LockState next = changed(state, event, rules);
  // Asking anew and locking anew make what is under way stale, although the phase may stay.
  const bool again = (event == LockEvent::systemAsked && next.phase == LockPhase::asking) || event == LockEvent::lock ||
                     event == LockEvent::hold || event == LockEvent::resetFailed || event == LockEvent::givenUp;
  if (again || next.phase != state.phase) ++next.generation;
  return next;
}

}  // namespace sorvane::unlock
