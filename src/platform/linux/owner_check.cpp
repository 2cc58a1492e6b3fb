#include "platform/linux/owner_check.h"

namespace sorvane::platform {
namespace {

bool isForPam(const std::optional<std::string>& obstacle) {
  return obstacle == kPolkitAbsent || obstacle == kPolkitActionAbsent || obstacle == kPolkitAsRoot;
}

}  // namespace

std::optional<std::string> OwnerCheck::unavailable() {
  auto obstacle = polkit_.unavailable();
  return isForPam(obstacle) ? pam_.unavailable() : obstacle;
}

void OwnerCheck::ask(Check check, const std::string& reason, Reply reply) {
  if (isForPam(polkit_.unavailable()) && !pam_.unavailable()) return pam_.ask(check, reason, std::move(reply));
  polkit_.ask(check, reason, std::move(reply));
}

void OwnerCheck::withdraw() {
  polkit_.withdraw();
  pam_.withdraw();
}

}  // namespace sorvane::platform
