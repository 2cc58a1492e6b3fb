#include "platform/linux/owner_check.h"

#include "platform/linux/notifier.h"
#include "platform/shared/reason_text.h"

namespace sorvane::platform {

bool showReasonAsNotice(const std::string& reason) {
  return showNotice("sorvane asks whether it is you", reasonText(reason));
}

OwnerCheck::OwnerCheck(Ports ports)
    : polkit_({.asking =
                   [this] {
                     const base::Lock lock(mutex_);
                     return asking_;
                   },
               .showReason = std::move(ports.showReason),
               .limit = ports.limit}),
      pam_({.terminal = ports.takeTerminal ? std::optional(ports.terminal) : std::nullopt,
            .takeTurn = ports.takeTerminal,
            .limit = ports.limit}) {}

void OwnerCheck::askFor(std::optional<Asking> asking) {
  const base::Lock lock(mutex_);
  asking_ = std::move(asking);
}

std::optional<std::string> OwnerCheck::unavailable() {
  const auto obstacle = polkit_.unavailable();
  return obstacle == kPolkitAbsent ? pam_.unavailable() : obstacle;
}

void OwnerCheck::ask(Check check, const std::string& reason, Reply reply) {
  if (polkit_.unavailable() == kPolkitAbsent) return pam_.ask(check, reason, std::move(reply));
  polkit_.ask(check, reason, std::move(reply));
}

void OwnerCheck::withdraw() {
  polkit_.withdraw();
  pam_.withdraw();
}

}  // namespace sorvane::platform
