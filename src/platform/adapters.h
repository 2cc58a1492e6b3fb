#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>

#include "agent/clipboard.h"
#include "agent/notifier.h"
#include "agent/process_host.h"
#include "phone/announcer.h"
#include "platform/shared/asking_presence.h"
#include "proxy/peer_owner.h"
#include "proxy/process_watch.h"
#include "unlock/owner_presence.h"
#include "unlock/session_signals.h"
#include "vault/secret_store.h"
#include "vault/store_record.h"

// What the application takes from the system that it was built for. Each function makes the adapter of this system; the
// build chooses the file that defines them.

namespace sorvane::platform {

/// Runs `body` and returns what it returned, in whatever way the system's own loop of events needs: on Linux at once,
/// elsewhere on a thread of its own while this thread, which must be the first one, serves the loop. What
/// it throws reaches the caller.
int runWithMainLoop(const std::function<int()>& body);

/// Tells whoever started this process as a service how it is, such as "READY=1"; nothing where nobody wants to know.
/// Does not throw.
void tellServiceManager(std::string_view state);

/// Before any thread and any secret. Throws agent::LaunchError when no commands can be started.
std::unique_ptr<agent::ProcessHost> makeProcessHost();

/// Waits until the application's own terminal is the caller's, which it is until the answer is gone; nullptr when the
/// token was stopped meanwhile.
using TakeTerminal = std::function<std::shared_ptr<void>(const std::stop_token& withdrawn)>;
/// The system's question whether its owner is there. `takeTerminal` is empty for an application without a terminal.
/// `unavailable` may be called by any thread, all else but `askFor` by one. A reason may have several lines.
std::unique_ptr<AskingPresence> makeOwnerPresence(TakeTerminal takeTerminal);
/// The same for the requests of agents, which have asked on the terminal before.
std::unique_ptr<AskingPresence> makeApprovalPresence();
/// What the owner may be recognised by. Waits for a moment at most.
unlock::UnlockHardware ownerHardware();
/// What an organization says about following the session; nullopt: nothing. `warn` is told of a setting that was passed
/// over, and why.
std::optional<bool> managedSessionSetting(const std::function<void(const std::string& sentence)>& warn);
std::unique_ptr<unlock::SessionSignals> makeSessionSignals();

std::unique_ptr<agent::Notifier> makeNotifier();
std::unique_ptr<agent::Clipboard> makeClipboard();
std::unique_ptr<phone::Announcer> makeAnnouncer();
std::unique_ptr<proxy::PeerOwners> makePeerOwners();
std::unique_ptr<proxy::ProcessWatch> makeProcessWatch();

/// The kinds of store that this system has for the values; the first one is for a new vault where nobody asks for
/// another.
std::span<const vault::StoreKind> storeKinds();

/// SystemStore is a store that the system itself offers.
struct SystemStore {
  std::shared_ptr<vault::EnumerableSecretStore> store;
  /// Where its items lay in earlier times and still may; null where there is no such place.
  std::shared_ptr<vault::EnumerableSecretStore> old;
};
/// Opens the one store of `storeKinds` that is not the embedded one. Throws base::Error with a sentence that may be
/// shown when this program may not use it, whatever the person does meanwhile.
SystemStore openSystemStore();

}  // namespace sorvane::platform
