#pragma once

#include <chrono>
#include <functional>
#include <optional>

#include "unlock/session_signals.h"

namespace sorvane::platform {

/// What the system tells about the session.
enum class SessionEvent {
  screenLocked,
  screenUnlocked,
  willSleep,
  didWake,
  resigned,      ///< another user's session came in front
  becameActive,  ///< this one did
  willPowerOff,  ///< somebody shuts down, restarts or logs out
  stillRunning,  ///< kPowerOffLimit after willPowerOff, and the process is still there
  lookAgain,     ///< when the tracker asked for it
};

/// SessionTracker makes the state of the session out of what the system tells and what it says when it is looked at.
///
/// The session is left as soon as either says so, and is back when both do: any process of the user can send the
/// notice that the screen is unlocked, so it is believed only once the window server agrees. That may lag behind the
/// notice; the tracker then asks to be told `lookAgain` in a moment. Of the main thread alone.
class SessionTracker {
 public:
  using State = unlock::SessionState;
  using Hold = unlock::SessionSignals::Hold;
  using Look = std::function<std::optional<State>()>;

  static constexpr std::chrono::milliseconds kLookAgain{500};
  /// How often it looks again after a notice: a forged one leads to no more.
  static constexpr int kMostLooks = 20;
  /// Who shuts down or logs out may be held up by another program and change their mind, which nothing tells.
  static constexpr std::chrono::minutes kPowerOffLimit{2};

  explicit SessionTracker(Look look) : look_(std::move(look)) {}

  /// The state as it is; nullopt where there is no session, of which the observer is then told nothing.
  std::optional<State> begin(unlock::SessionSignals::Observer observer);
  /// Tells the observer when the state changed, and always when something is held up. Returns what to note after which
  /// time, if anything.
  struct Later {
    SessionEvent event;
    std::chrono::milliseconds after;
    bool operator==(const Later&) const = default;
  };
  std::optional<Later> note(SessionEvent event, const Hold& hold = nullptr);

 private:
  void take(SessionEvent event);
  State state() const;

  const Look look_;
  unlock::SessionSignals::Observer observer_;
  State told_;       ///< by notices
  State seen_;       ///< by looking
  State announced_;  ///< what the observer knows
  int looksLeft_ = 0;
  bool isLooking_ = false;  ///< `lookAgain` was asked for and has not come
};

}  // namespace sorvane::platform
