#pragma once

#include <functional>
#include <memory>
#include <optional>

namespace sorvane::unlock {

/// The person's session on this computer as the system reports it.
struct SessionState {
  bool active = true;  ///< it is the one in front
  bool screenLocked = false;
  bool asleep = false;  ///< the computer is about to sleep, until it woke
  bool poweringOff = false;
  bool operator==(const SessionState&) const = default;

  /// Whether the person may be in it.
  bool available() const { return active && !screenLocked && !asleep && !poweringOff; }
};

/// SessionSignals tells how the session changes.
class SessionSignals {
 public:
  /// Keeps the system from going on, to sleep above all, until the last copy is gone; null when nothing is held up.
  using Hold = std::shared_ptr<const void>;
  /// Called for every change, one call at a time, on a thread of the implementation. It must not block.
  using Observer = std::function<void(const SessionState& state, const Hold& hold)>;

  virtual ~SessionSignals() = default;
  /// Begins to tell the observer, and returns the state as it is; nullopt when the system reports no session: it then
  /// counts as available always. Called once; whatever the observer uses outlives this object.
  virtual std::optional<SessionState> observe(Observer observer) = 0;
};

}  // namespace sorvane::unlock
