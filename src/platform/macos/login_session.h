#pragma once

#include <memory>

#include "unlock/session_signals.h"

namespace sorvane::platform {

/// WorkspaceSession tells how the person's session changes as macOS reports it: the screen locked, another user's
/// session in front, sleep, and shutting down or logging out. Sleep waits until the observer let its hold go, half a
/// minute at most. Shutting down waits for nobody.
///
/// Everything is told on the main thread, within runWithMainLoop, where `observe` and the destructor wait for a moment;
/// the observer is called there.
class WorkspaceSession final : public unlock::SessionSignals {
 public:
  WorkspaceSession();
  ~WorkspaceSession() override;
  WorkspaceSession(const WorkspaceSession&) = delete;
  WorkspaceSession& operator=(const WorkspaceSession&) = delete;

  /// nullopt for a process outside of any session with a screen, as over ssh; that is said once on standard error.
  std::optional<unlock::SessionState> observe(Observer observer) override;

 private:
  class Notices;

  std::unique_ptr<Notices> notices_;
};

}  // namespace sorvane::platform
