#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "unlock/session_signals.h"

namespace sorvane::platform {

/// LoginSession tells how the person's session changes as the login manager (org.freedesktop.login1) reports it:
/// whether it is the active one, whether its screen is locked (the hint of whoever locks it, or a request to lock that
/// nobody took back), sleep and shutdown. A delay inhibitor holds sleep and shutdown up until the observer let its hold
/// go; the login manager waits for a few seconds at most. A system bus that goes away counts as leaving the session
/// until it is back.
///
/// One thread, begun by `observe` and ended with this object, tells the observer; the destructor waits for it.
class LoginSession final : public unlock::SessionSignals {
 public:
  static constexpr std::chrono::seconds kTryAgain{5};

  struct Ports {
    /// The id of the session as the system gave it to this process (XDG_SESSION_ID); empty: it is looked for, first by
    /// this process and then as the user's session with a display.
    std::string sessionId;
    /// How long after the bus went it is tried again.
    std::chrono::milliseconds tryAgain{kTryAgain};
  };
  explicit LoginSession(Ports ports) : ports_(std::move(ports)) {}
  ~LoginSession() override;
  LoginSession(const LoginSession&) = delete;
  LoginSession& operator=(const LoginSession&) = delete;

  /// Waits until the login manager answered, a few seconds at most. nullopt where there is none, or none knows a
  /// session of this user; that is said once on standard error.
  std::optional<unlock::SessionState> observe(Observer observer) override;

 private:
  class Watch;

  const Ports ports_;
  std::shared_ptr<Watch> watch_;
  std::thread thread_;
};

}  // namespace sorvane::platform
