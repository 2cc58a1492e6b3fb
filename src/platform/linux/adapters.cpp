#include "platform/adapters.h"

#include <array>
#include <cstdlib>

#include "platform/linux/avahi_announcer.h"
#include "platform/linux/clipboard.h"
#include "platform/linux/login_session.h"
#include "platform/linux/managed_settings.h"
#include "platform/linux/notifier.h"
#include "platform/linux/owner_check.h"
#include "platform/linux/peer_owner.h"
#include "platform/linux/process_host.h"
#include "platform/linux/process_watch.h"
#include "platform/linux/secret_service_store.h"

namespace sorvane::platform {

int runWithMainLoop(const std::function<int()>& body) {
  return body();
}

std::unique_ptr<agent::ProcessHost> makeProcessHost() {
  return std::make_unique<LinuxProcessHost>();
}

std::unique_ptr<AskingPresence> makeOwnerPresence(TakeTerminal takeTerminal) {
  OwnerCheck::Ports ports;
  ports.takeTerminal = std::move(takeTerminal);
  return std::make_unique<OwnerCheck>(std::move(ports));
}

std::unique_ptr<AskingPresence> makeApprovalPresence() {
  return makeOwnerPresence({});
}

std::optional<bool> managedSessionSetting(const std::function<void(const std::string& sentence)>& warn) {
  return managedFollowsSession(kManagedSettings, warn);
}

std::unique_ptr<unlock::SessionSignals> makeSessionSignals() {
  const char* const id = std::getenv("XDG_SESSION_ID");
  return std::make_unique<LoginSession>(
      LoginSession::Ports{.sessionId = id == nullptr ? std::string() : std::string(id)});
}

std::unique_ptr<agent::Notifier> makeNotifier() {
  return std::make_unique<FreedesktopNotifier>();
}

std::unique_ptr<agent::Clipboard> makeClipboard() {
  return std::make_unique<SystemClipboard>();
}

std::unique_ptr<phone::Announcer> makeAnnouncer() {
  return std::make_unique<AvahiAnnouncer>();
}

std::unique_ptr<proxy::PeerOwners> makePeerOwners() {
  return std::make_unique<LinuxPeerOwners>();
}

std::unique_ptr<proxy::ProcessWatch> makeProcessWatch() {
  return std::make_unique<PidfdWatch>();
}

std::span<const vault::StoreKind> storeKinds() {
  static constexpr std::array kKinds{vault::StoreKind::embedded, vault::StoreKind::secretService};
  return kKinds;
}

SystemStore openSystemStore() {
  return {std::make_shared<SecretServiceStore>(), nullptr};
}

}  // namespace sorvane::platform
