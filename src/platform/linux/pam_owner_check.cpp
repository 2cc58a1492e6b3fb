#include "platform/linux/pam_owner_check.h"

#include <pwd.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <vector>

#include "base/descriptor.h"
#include "base/unicode.h"
#include "platform/linux/pam_library.h"
#include "platform/shared/reason_text.h"

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

}  // namespace

PamOwnerCheck::PamOwnerCheck(Ports ports) : ports_(std::move(ports)) {}

PamOwnerCheck::~PamOwnerCheck() {
  withdraw();
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
  return std::nullopt;
}

void PamOwnerCheck::ask(Check, const std::string& reason, Reply reply) {
  withdraw();
  withdrawn_ = std::stop_source();
  threads_.start([this, reason, reply = std::move(reply), withdrawn = withdrawn_.get_token()] {
    Answer answer = Failed{Failed::kSystemCancelled};
    try {
      answer = answerTo(reason, withdrawn);
    } catch (const std::exception&) {
      // Without memory nobody was asked.
    }
    reply(answer);
  });
}

void PamOwnerCheck::withdraw() {
  withdrawn_.request_stop();
}

unlock::OwnerPresence::Answer PamOwnerCheck::answerTo(const std::string& reason, const std::stop_token& withdrawn) {
  const std::string user = userName(), used = service();
  if (auto obstacle = unavailable()) return Failed{Failed::kNotInteractive, *std::move(obstacle)};
  if (user.empty() || used.empty()) return Failed{Failed::kNotInteractive};
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
