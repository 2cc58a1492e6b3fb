#include "platform/linux/pam_owner_check.h"

#include <pwd.h>
#include <shadow.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <vector>

#include "base/descriptor.h"
#include "base/unicode.h"
#include "platform/linux/pam_library.h"
#include "platform/linux/reason_text.h"

namespace sorvane::platform {
namespace {

/// The name of the user that this process runs as; empty when the system knows none.
std::string userName() {
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) return {};
  return found->pw_name;
}

/// Whether this process's account could be asked for a password, as far as it may know.
bool mayHavePassword() {
  if (::geteuid() != 0) return true;
  std::vector<char> buffer(16384);
  spwd entry{};
  spwd* found = nullptr;
  const bool isThere = ::getspnam_r("root", &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr;
  // Locked accounts have a mark that no password gives.
  const bool has = isThere && found->sp_pwdp != nullptr && *found->sp_pwdp != '\0' && *found->sp_pwdp != '!' &&
                   *found->sp_pwdp != '*';
  base::wipe(buffer.data(), buffer.size());
  return has;
}

}  // namespace

PamOwnerCheck::PamOwnerCheck(Ports ports) : ports_(std::move(ports)) {}

PamOwnerCheck::~PamOwnerCheck() {
  withdraw();
  if (thread_.joinable()) thread_.join();
}

std::string PamOwnerCheck::service() const {
  for (const char* const name : {"sorvane", "login"}) {
    for (const auto& folder : ports_.services) {
      std::error_code ignored;
      if (std::filesystem::is_regular_file(folder / name, ignored)) return name;
    }
  }
  return {};
}

std::optional<std::string> PamOwnerCheck::unavailable() {
  if (!isPamThere()) return std::string(kPamAbsent);
  if (service().empty()) return std::string(kPamNoService);
  if (!hasTerminal()) return std::string(kPamNoTerminal);
  if (!mayHavePassword()) return std::string(kPamNoPassword);
  return std::nullopt;
}

void PamOwnerCheck::ask(Check, const std::string& reason, Reply reply) {
  withdraw();
  if (thread_.joinable()) thread_.join();
  withdrawn_ = std::stop_source();
  sigset_t all, earlier;
  sigfillset(&all);
  // Signals are for the threads that wait for them; the terminal's own stop none that only shows a prompt.
  ::pthread_sigmask(SIG_SETMASK, &all, &earlier);
  thread_ = std::thread([this, reason, reply = std::move(reply), withdrawn = withdrawn_.get_token()] {
    Answer answer = Failed{Failed::kSystemCancelled};
    try {
      answer = answerTo(reason, withdrawn);
    } catch (const std::exception&) {
      // Without memory nobody was asked.
    }
    reply(answer);
  });
  ::pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
}

void PamOwnerCheck::withdraw() {
  withdrawn_.request_stop();
}

unlock::OwnerPresence::Answer PamOwnerCheck::answerTo(const std::string& reason,
                                                      const std::stop_token& withdrawn) const {
  const std::string user = userName(), used = service();
  if (user.empty() || used.empty() || !hasTerminal()) return Failed{Failed::kNotInteractive};
  const auto turn = ports_.takeTurn ? ports_.takeTurn(withdrawn) : nullptr;
  if (withdrawn.stop_requested()) return Cancelled{};
  const base::Descriptor takenBack(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  const std::stop_callback onWithdrawn(withdrawn, [&takenBack] { ::eventfd_write(takenBack.get(), 1); });
  const TerminalPrompt& terminal = *ports_.terminal;
  const auto deadline = std::chrono::steady_clock::now() + ports_.limit;
  bool gaveUp = false;
  terminal.show("\n" + reasonText(reason) + "\n");
  const PamConversation conversation{
      .ask = [&](const std::string& prompt, bool echo) -> std::optional<base::SecretText> {
        const auto mode = echo ? TerminalPrompt::Echo::yes : TerminalPrompt::Echo::no;
        auto answer = terminal.read(base::escapedForDisplay(prompt), mode, deadline, takenBack.get());
        gaveUp = gaveUp || !answer;
        return answer;
      },
      .show = [&](const std::string& text) { terminal.show(base::escapedForDisplay(text) + "\n"); }};
  const PamResult result = pamAuthenticate(used, user, conversation);
  if (gaveUp || withdrawn.stop_requested()) return Cancelled{};
  switch (result) {
    case PamResult::granted:
      return Granted{};
    case PamResult::unasked:
      return Failed{Failed::kNoLoginPassword};
    case PamResult::notAccepted:
      return Failed{Failed::kNotAccepted};
    case PamResult::failed:
      break;
  }
  return Failed{Failed::kNotInteractive};
}

}  // namespace sorvane::platform
