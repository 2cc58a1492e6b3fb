#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "platform/shared/question_threads.h"
#include "platform/shared/terminal_prompt.h"
#include "unlock/owner_presence.h"

namespace sorvane::platform {

inline constexpr std::string_view kPamAbsent =
    "Neither polkit nor the system's authentication modules (PAM) are there, so sorvane cannot ask whether it is you. "
    "Nothing was unlocked. Install polkitd, or set a passphrase that opens sorvane by itself.";
inline constexpr std::string_view kPamNoService =
    "The system's authentication modules (PAM) have neither a service \"sorvane\" nor one \"login\", so sorvane cannot "
    "ask whether it is you. Nothing was unlocked. Install polkitd, or sorvane's package, which brings its PAM service.";
inline constexpr std::string_view kPamNoTerminal =
    "There is no terminal on which sorvane could ask for your password. Nothing was unlocked. Install polkitd, or run "
    "sorvaned in a terminal.";

/// PamOwnerCheck asks the owner for the login password on the application's own terminal, where there is no polkit: the
/// service "sorvane" of the system's authentication modules, or "login" where that is not installed. A yes that took no
/// answer is none. Without an answer within `limit` of the question the answer is Cancelled. Whether the account has a
/// password is not for its user to read: it shows when it is asked.
class PamOwnerCheck final : public unlock::OwnerPresence {
 public:
  static constexpr std::chrono::seconds kLimit{120};

  struct Ports {
    /// nullopt: the application has none.
    std::optional<TerminalPrompt> terminal;
    /// Waits until nobody else asks on the terminal, which is this check's until the answer is gone; nullptr when the
    /// token was stopped meanwhile. Empty: nobody else asks there. In a thread of this object.
    std::function<std::shared_ptr<void>(const std::stop_token&)> takeTurn;
    /// Where the system keeps the service files; the first one counts.
    std::vector<std::filesystem::path> services{"/etc/pam.d", "/usr/lib/pam.d"};
    std::chrono::milliseconds limit{kLimit};
  };
  explicit PamOwnerCheck(Ports ports);
  /// Takes an open question back and waits for its thread.
  ~PamOwnerCheck() override;
  PamOwnerCheck(const PamOwnerCheck&) = delete;
  PamOwnerCheck& operator=(const PamOwnerCheck&) = delete;

  std::optional<std::string> unavailable() override;
  void ask(Check check, const std::string& reason, Reply reply) override;
  void withdraw() override;

 private:
  /// Empty where neither file is there.
  std::string service() const;
  Answer answerTo(const std::string& reason, const std::stop_token& withdrawn);
  bool hasTerminal() const { return ports_.terminal && ports_.terminal->isThere(); }

  const Ports ports_;
  // Of the thread that asks.
  std::stop_source withdrawn_{std::nostopstate};
  QuestionThreads threads_;
};

}  // namespace sorvane::platform
