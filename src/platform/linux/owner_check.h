#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

#include "base/mutex.h"
#include "platform/linux/pam_owner_check.h"
#include "platform/linux/polkit_owner_check.h"
#include "platform/shared/asking_presence.h"

namespace sorvane::platform {

/// Shows the reason of a question as a notice of the desktop; whether a service took it. Waits for a moment at most.
bool showReasonAsNotice(const std::string& reason);

/// OwnerCheck asks the owner by what this machine has: polkit, or the authentication modules (PAM) on the application's
/// own terminal where polkit is not there. Where polkit does not know the action, forbids the question or says yes to
/// everybody, as it does to root, the terminal does not go around that: the check is unavailable, with a sentence that
/// says what to install or do.
///
/// The application makes one where its thread of the lock is, and says for whom it asks before each question:
///
///     OwnerCheck presence({.takeTerminal = approver == nullptr ? OwnerCheck::TakeTerminal()
///         : [&](const std::stop_token& withdrawn) { return approver->takeTurn(withdrawn); }});
///     // For a request of a process; `caller` says which one it is, and whether it answers itself.
///     if (const auto process = base::processInfo(caller.peer)) presence.askFor({{*process, caller.answersItself}});
///     lockManager.unlockWithSystem(button, [&](auto outcome) { presence.askFor(std::nullopt); … });
///
/// `unavailable` may be called by any thread, all else by one. A reason may have several lines.
/// The asking program holds a PolkitTextAgent (platform/linux/polkit_text_agent.h) while it waits.
class OwnerCheck final : public AskingPresence {
 public:
  using TakeTerminal = std::function<std::shared_ptr<void>(const std::stop_token& withdrawn)>;
  struct Ports {
    /// As PamOwnerCheck's `takeTurn`. Empty: the application has no terminal of its own, and PAM cannot be used.
    TakeTerminal takeTerminal;
    TerminalPrompt terminal = TerminalPrompt();
    /// Shows the reason before polkit asks; false where it could not.
    std::function<bool(const std::string& reason)> showReason = showReasonAsNotice;
    std::chrono::milliseconds limit{PolkitOwnerCheck::kLimit};
  };
  explicit OwnerCheck(Ports ports);

  void askFor(std::optional<Asking> asking) override;

  std::optional<std::string> unavailable() override;
  void ask(Check check, const std::string& reason, Reply reply) override;
  void withdraw() override;

 private:
  // Guarded. A leaf.
  base::Mutex mutex_;
  std::optional<Asking> asking_ GUARDED_BY(mutex_);
  // Own synchronisation. Their threads use what stands above.
  PolkitOwnerCheck polkit_;
  PamOwnerCheck pam_;
};

}  // namespace sorvane::platform
