#include "platform/adapters.h"

#include <array>

#include "platform/macos/bonjour_announcer.h"
#include "platform/macos/clipboard.h"
#include "platform/macos/keychain_domains.h"
#include "platform/macos/login_session.h"
#include "platform/macos/managed_settings.h"
#include "platform/macos/notifier.h"
#include "platform/macos/owner_check.h"
#include "platform/macos/peer_owner.h"
#include "platform/macos/process_host.h"
#include "platform/macos/process_watch.h"

namespace sorvane::platform {
namespace {

/// The system's prompt names the application, whoever asked it, and needs no terminal.
class PromptedPresence final : public AskingPresence {
 public:
  explicit PromptedPresence(OwnerCheckPurpose purpose) : check_(purpose) {}
  void askFor(std::optional<Asking>) override {}
  std::optional<std::string> unavailable() override { return check_.unavailable(); }
  void ask(Check check, const std::string& reason, Reply reply) override {
    check_.ask(check, reason, std::move(reply));
  }
  void withdraw() override { check_.withdraw(); }

 private:
  LocalOwnerCheck check_;
};

}  // namespace

std::unique_ptr<agent::ProcessHost> makeProcessHost() {
  return std::make_unique<MacProcessHost>();
}

std::unique_ptr<AskingPresence> makeOwnerPresence(TakeTerminal) {
  return std::make_unique<PromptedPresence>(OwnerCheckPurpose::lock);
}

std::unique_ptr<AskingPresence> makeApprovalPresence() {
  return std::make_unique<PromptedPresence>(OwnerCheckPurpose::approvals);
}

std::optional<bool> managedSessionSetting(const std::function<void(const std::string& sentence)>& warn) {
  return managedFollowsSession(kManagedSettings, warn);
}

std::unique_ptr<unlock::SessionSignals> makeSessionSignals() {
  return std::make_unique<WorkspaceSession>();
}

std::unique_ptr<agent::Notifier> makeNotifier() {
  return std::make_unique<UserNotifier>();
}

std::unique_ptr<agent::Clipboard> makeClipboard() {
  return std::make_unique<PasteboardClipboard>();
}

std::unique_ptr<phone::Announcer> makeAnnouncer() {
  return std::make_unique<BonjourAnnouncer>();
}

std::unique_ptr<proxy::PeerOwners> makePeerOwners() {
  return std::make_unique<LibprocPeerOwners>();
}

std::unique_ptr<proxy::ProcessWatch> makeProcessWatch() {
  return std::make_unique<KqueueWatch>();
}

std::span<const vault::StoreKind> storeKinds() {
  static constexpr std::array kKinds{vault::StoreKind::keychain};
  return kKinds;
}

SystemStore openSystemStore() {
  KeychainDomains domains = openKeychain();
  return {std::move(domains.dataProtection), std::move(domains.legacy)};
}

}  // namespace sorvane::platform
