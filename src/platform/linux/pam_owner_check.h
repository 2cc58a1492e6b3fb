#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "base/descriptor.h"
#include "platform/linux/terminal_prompt.h"
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
/// answer is none. Without an answer within `limit` the answer is Cancelled.
class PamOwnerCheck final : public unlock::OwnerPresence {
 public:
  static constexpr std::chrono::seconds kLimit{120};

  struct Ports {
    TerminalPrompt terminal;
    std::filesystem::path services = "/etc/pam.d";
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
  Answer answerTo(const std::string& reason, int withdrawn) const;

  const Ports ports_;
  // Of the thread that asks; the descriptor is readable once the question is taken back.
  std::shared_ptr<base::Descriptor> withdrawn_;
  std::thread thread_;
};

}  // namespace sorvane::platform
