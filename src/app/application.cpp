#include "app/application.h"

#include <utility>

#include "base/diagnostics.h"
#include "base/support_folder.h"
#include "base/system.h"
#include "base/temporary_files.h"

namespace sorvane::app {
namespace {

constexpr std::string_view kMemoryMayBeSwapped =
    "The system does not let sorvaned lock its memory, so keys could reach the swap space. Raise the limit of locked "
    "memory (ulimit -l) and restart sorvaned.";
constexpr std::string_view kNobodyAnswers =
    "sorvaned runs without a terminal, so every request that needs the owner is put to a paired phone that is "
    "connected, then to the system's owner check, and denied where there is neither. Run it in a terminal to answer "
    "there.";

platform::TakeTerminal turnsOf(agent::TerminalApprover* approver) {
  if (approver == nullptr) return {};
  return [approver](const std::stop_token& withdrawn) { return approver->takeTurn(withdrawn); };
}

std::function<void(pid_t)> askingFor(platform::AskingPresence& presence) {
  return [&presence](pid_t pid) {
    const auto process = pid > 0 ? base::processInfo(pid) : std::nullopt;
    presence.askFor(process ? std::optional(platform::Asking{*process, false}) : std::nullopt);
  };
}

}  // namespace

class Application::Approver final : public agent::ApprovalProvider {
 public:
  Approver(agent::TerminalApprover& terminal, TrustedSession& trusted) : terminal_(terminal), trusted_(trusted) {}

  std::optional<bool> ask(const agent::OwnerApprovalPrompt& prompt, const agent::ApprovalContext& context) override {
    const auto answer = terminal_.ask(prompt, context);
    if (answer) trusted_.noteOwner();
    return answer;
  }

 private:
  agent::TerminalApprover& terminal_;
  TrustedSession& trusted_;
};

Application::Application(const Setting& setting, agent::ProcessHost& host, agent::TerminalApprover* approver)
    : setting_(setting),
      host_(host),
      hasTerminal_(approver != nullptr),
      lockFile_(setting.supportFolder / base::kLockName),
      stores_(setting.supportFolder, files_, setting.store),
      session_(platform::makeSessionSignals()),
      presence_(platform::makeOwnerPresence(turnsOf(approver))),
      approvalPresence_(platform::makeApprovalPresence()),
      ownerPrompt_({*approvalPresence_, askingFor(*approvalPresence_), [this] { trusted_.noteOwner(); }}),
      approver_(approver == nullptr ? nullptr : std::make_unique<Approver>(*approver, trusted_)),
      phoneLink_({stores_, clock_, [this] { lock_.lookAgain(); }}),
      asker_({approver_.get(), phoneLink_}),
      screen_(approver == nullptr
                  ? nullptr
                  : std::make_unique<LockScreen>(*approver, [this] { return lock_.isAskedOnTerminal(); })),
      wasNew_(stores_.isNew()),
      lock_(lockPorts()),
      ownerServer_(std::in_place, setting.supportFolder, agent::OwnerServer::Ports{files_, lock_, lockedRestore_}) {
  base::removeTemporaryFiles(files_, setting.supportFolder);
  if (!setting.memoryIsLocked) base::diagnose("app", kMemoryMayBeSwapped);
  if (!hasTerminal_) base::diagnose("app", kNobodyAnswers);
}

Application::~Application() {
  // Waits for the requests in flight, which the lock still answers.
  ownerServer_.reset();
  if (screen_) screen_->stop();
  lock_.stop();
  phoneLink_.close();
  // A late answer or signal finds the lock's threads still there.
  session_.reset();
  presence_.reset();
}

VaultLock::Ports Application::lockPorts() {
  return {
      .supportFolder = setting_.supportFolder,
      .stores = stores_,
      .clock = clock_,
      .trusted = trusted_,
      .presence = *presence_,
      .phones = phoneLink_,
      .askFor =
          [this](const agent::LockCaller& caller) {
            const auto process = caller.peer > 0 ? base::processInfo(caller.peer) : std::nullopt;
            presence_->askFor(process ? std::optional(platform::Asking{*process, caller.answersItself}) : std::nullopt);
          },
      .ownTerminal = screen_.get(),
      .signals = *session_,
      .managedFollowsSession =
          [] {
            return platform::managedSessionSetting(
                [](const std::string& sentence) { base::diagnose("unlock", sentence); });
          },
      .hardware = platform::ownerHardware,
      // Who was paired with the vault that is set aside is not with the one in its place.
      .replacing = [this] { phoneLink_.close(); },
      .replaced =
          [this] {
            if (!stores_.isSealed()) phoneLink_.open();
          },
      .open = [this](bool afterReset) { open(afterReset); },
      .close = [this] { close(); },
      .onChange =
          [this] {
            // A passphrase may have been set while the vault was locked.
            if (!vault_) phoneLink_.locked();
            if (screen_) screen_->wake();
          },
      .isNew = wasNew_,
  };
}

agent::ApplicationState Application::state() const {
  agent::ApplicationState state;
  state.version = SORVANE_VERSION;
  state.supportFolder = setting_.supportFolder.string();
  state.approver = hasTerminal_ ? "the terminal that sorvaned runs on" : "a paired phone, or the system's owner check";
  state.capabilities.assign(agent::kCapabilities.begin(), agent::kCapabilities.end());
  if (!hasTerminal_) state.notices.emplace_back(kNobodyAnswers);
  if (!setting_.memoryIsLocked) state.notices.emplace_back(kMemoryMayBeSwapped);
  return state;
}

OpenVault::Ports Application::vaultPorts(bool afterReset) {
  return {.supportFolder = setting_.supportFolder,
          .files = files_,
          .clock = clock_,
          .stores = stores_,
          .host = host_,
          .notifier = *notifier_,
          .approver = asker_,
          .ownerPrompt = ownerPrompt_,
          .phones = phones_,
          .systemCheckUnavailable = [this] { return approvalPresence_->unavailable(); },
          .trustedSession = [this] { return trusted_.holds(); },
          .agentsHeldBack = afterReset,
          .restoring = [this](std::int64_t done, std::int64_t total) { lock_.noteRestoring(done, total); },
          .restored =
              [this] {
                phoneLink_.reopen();
                lock_.noteRestored();
              },
          .state = state()};
}

void Application::open(bool afterReset) {
  try {
    stores_.open();
    vault_ = std::make_unique<OpenVault>(vaultPorts(afterReset));
    phoneLink_.open();
    if (vault_->start()) return base::diagnose("app", "the vault is open");
    base::diagnose("app",
                   "the agents' socket could not be opened, so nothing is served. Check that the support folder can be "
                   "written to and that its disk has room.");
  } catch (const std::exception& error) {
    // Whoever unlocked it is answered all the same; the lock is open and serves nothing.
    vault_.reset();
    base::diagnose("app", std::string("the vault could not be opened, so nothing is served: ") + error.what());
  }
}

void Application::close() {
  vault_.reset();
  stores_.close();
  phoneLink_.locked();
  base::diagnose("app", "the vault is locked");
}

bool Application::start() {
  if (!wasNew_ && !stores_.isSealed()) phoneLink_.open();
  if (!ownerServer_->start()) return false;
  lock_.start();
  return true;
}

void Application::showLock() {
  if (screen_) screen_->start(lock_, wasNew_, [this] { lock_.wasOffered(); });
}

}  // namespace sorvane::app
