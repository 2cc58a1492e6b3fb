#pragma once

#include "platform/linux/pam_owner_check.h"
#include "platform/linux/polkit_owner_check.h"

namespace sorvane::platform {

/// OwnerCheck asks through polkit, and through the authentication modules on the own terminal where polkit is not
/// there, does not know the action, or says yes to everybody (to root). Where a rule forbids the question or nobody
/// could show it, the terminal does not go around that. Borrows both.
class OwnerCheck final : public unlock::OwnerPresence {
 public:
  OwnerCheck(PolkitOwnerCheck& polkit, PamOwnerCheck& pam) : polkit_(polkit), pam_(pam) {}

  std::optional<std::string> unavailable() override;
  void ask(Check check, const std::string& reason, Reply reply) override;
  void withdraw() override;

 private:
  PolkitOwnerCheck& polkit_;
  PamOwnerCheck& pam_;
};

}  // namespace sorvane::platform
