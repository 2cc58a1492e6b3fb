#include "platform/macos/session_tracker.h"

#include <utility>

namespace sorvane::platform {

std::optional<SessionTracker::State> SessionTracker::begin(unlock::SessionSignals::Observer observer) {
  const auto now = look_();
  if (!now) return std::nullopt;
  observer_ = std::move(observer);
  seen_ = *now;
  announced_ = state();
  return announced_;
}

std::optional<SessionTracker::Later> SessionTracker::note(SessionEvent event, const Hold& hold) {
  if (!observer_) return std::nullopt;
  take(event);
  // A session that the window server does not know any more is over.
  seen_ = look_().value_or(State{.active = false});
  const State now = state();
  if (std::exchange(announced_, now) != now || hold) observer_(now, hold);

  if (event == SessionEvent::willPowerOff) return Later{SessionEvent::stillRunning, kPowerOffLimit};
  const bool lagsBehind = told_.active && !told_.screenLocked && !seen_.available();
  if (!lagsBehind || isLooking_ || looksLeft_ == 0) return std::nullopt;
  --looksLeft_;
  isLooking_ = true;
  return Later{SessionEvent::lookAgain, kLookAgain};
}

void SessionTracker::take(SessionEvent event) {
  switch (event) {
    case SessionEvent::screenLocked:
      told_.screenLocked = true;
      return;
    case SessionEvent::screenUnlocked:
      told_.screenLocked = false;
      looksLeft_ = kMostLooks;
      return;
    case SessionEvent::willSleep:
      told_.asleep = true;
      return;
    case SessionEvent::didWake:
      told_.asleep = false;
      return;
    case SessionEvent::resigned:
      told_.active = false;
      return;
    case SessionEvent::becameActive:
      told_.active = true;
      looksLeft_ = kMostLooks;
      return;
    case SessionEvent::willPowerOff:
      told_.poweringOff = true;
      return;
    case SessionEvent::stillRunning:
      told_.poweringOff = false;
      return;
    case SessionEvent::lookAgain:
      isLooking_ = false;
      return;
  }
}

SessionTracker::State SessionTracker::state() const {
  State state = told_;
  state.active = told_.active && seen_.active;
  state.screenLocked = told_.screenLocked || seen_.screenLocked;
  return state;
}

}  // namespace sorvane::platform
