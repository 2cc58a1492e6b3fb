#include "app/vault_lock.h"

#include <utility>
#include <variant>

#include "agent/terminal_question.h"
#include "app/phone_presence.h"
#include "base/diagnostics.h"
#include "base/system.h"

namespace sorvane::app {

using agent::LockCaller;
using agent::LockOutcome;
using agent::LockReport;
using unlock::LockManager;
using unlock::UnlockError;
using Case = UnlockError::Case;
using Kind = LockOutcome::Kind;
using Requirement = unlock::PassphraseRequirement;

namespace {

constexpr std::string_view kSealedReset =
    "A reset makes fresh settings. It keeps the passphrase, without which the values cannot be opened: if they stay "
    "closed, only a backup brings them back. If you did not expect this, something changed the files of sorvane.";
constexpr std::string_view kNotSealedYet =
    "The passphrase does not seal the values yet. The next unlock with it seals them.";
constexpr std::string_view kNoLoginManager =
    "There is no login manager that reports your session, so the vault does not close when the screen locks. Lock it "
    "with sorvane lock.";
constexpr std::string_view kOpensByPhone = "sorvane opens with a yes on your phone.";
constexpr std::string_view kOpensByPhoneFirst = "sorvane opens with a yes on your phone and then its passphrase.";
constexpr std::string_view kPhoneIsCheckToo = "A yes on your phone is as good; its passphrase follows.";
constexpr std::string_view kOpensByPhoneToo = "A yes on your phone opens it as well.";

std::string_view word(Case kind) {
  switch (kind) {
    case Case::wait:
      return "wait";
    case Case::storage:
      return "storage";
    case Case::systemCheckFailed:
      return "systemCheckFailed";
    case Case::vaultLocked:
      return "vaultLocked";
    case Case::cancelled:
      return "cancelled";
    case Case::wrongPassphrase:
      return "wrongPassphrase";
    case Case::tooShort:
      return "tooShort";
    case Case::mismatch:
      return "mismatch";
    case Case::managed:
      return "managed";
    case Case::settingsMissing:
      return "settingsMissing";
    case Case::settingsDamaged:
      return "settingsDamaged";
    case Case::vaultKeyMismatch:
      return "vaultKeyMismatch";
  }
  return "cancelled";
}

LockOutcome refused(const UnlockError& error) {
  if (!error.cause().empty()) base::diagnose("unlock", error.cause());
  return {Kind::refused, std::string(word(error.kind())), error.sentence()};
}

std::string methodInWords(const unlock::SystemUnlockMethod& method) {
  struct Words {
    std::string operator()(const unlock::BiometryMethod&) const { return "your fingerprint"; }
    std::string operator()(const unlock::WatchMethod&) const { return "your watch"; }
    std::string operator()(const unlock::PasswordMethod&) const { return "your login password"; }
  };
  return std::visit(Words{}, method);
}

std::string choicesInWords(const unlock::UnlockChoices& choices) {
  std::string words = "sorvane opens with " + methodInWords(choices.primary);
  if (choices.watchAlsoWorks) words += " or your watch";
  if (choices.offersPassword) words += ", or with your login password";
  return words + ".";
}

/// What a reset does, beside its cause.
std::string_view resetInWords(const LockReport& report) {
  return report.storeIsSealed ? kSealedReset : unlock::kResetExplanation;
}

/// The prompt as the report names it, and what it says.
void describe(LockReport& report, const LockManager::Prompt& prompt) {
  struct Words {
    LockReport& report;
    void operator()(const LockManager::SystemPrompt& system) const {
      report.prompt = "system";
      report.sentence = choicesInWords(system.choices);
    }
    void operator()(const LockManager::UnavailablePrompt& unavailable) const {
      report.prompt = "unavailable";
      report.sentence = unavailable.sentence;
    }
    void operator()(const LockManager::ResetPrompt& reset) const {
      report.prompt = "reset";
      report.sentence = reset.cause + " " + std::string(resetInWords(report));
    }
    void operator()(const LockManager::PassphrasePrompt&) const {
      report.prompt = "passphrase";
      report.sentence = "sorvane opens with its passphrase.";
    }
  };
  std::visit(Words{report}, prompt);
}

LockManager::NewPassphrase typed(agent::TypedPassphrase passphrase) {
  return {std::move(passphrase.text), std::move(passphrase.confirmation)};
}

/// A function that is copied must hold what cannot be.
template <typename T>
std::shared_ptr<T> held(T value) {
  return std::make_shared<T>(std::move(value));
}

}  // namespace

/// The session's signals, seen on their way to the lock manager: a session that goes away vouches for nobody, whether
/// the vault follows it or not. While a passphrase is offered for a new vault the session counts as away.
class VaultLock::Watched final : public unlock::SessionSignals {
 public:
  Watched(VaultLock& lock, bool isHeldBack) : lock_(lock), isHeldBack_(isHeldBack) {}

  std::optional<unlock::SessionState> observe(Observer observer) override {
    observer_ = std::move(observer);
    const auto state = lock_.ports_.signals.observe([this](const auto& now, const Hold& hold) { pass(now, hold); });
    const base::Lock lock(mutex_);
    isReported_ = state.has_value();
    if (!state || !isHeldBack_) return state;
    if (!last_) last_ = state;
    return away(*state);
  }
  bool isReported() const {
    const base::Lock lock(mutex_);
    return isReported_;
  }
  void release() {
    std::optional<unlock::SessionState> state;
    {
      const base::Lock lock(mutex_);
      if (!std::exchange(isHeldBack_, false)) return;
      state = last_;
    }
    if (state) pass(*state, nullptr);
  }

 private:
  static unlock::SessionState away(unlock::SessionState state) {
    state.active = false;
    return state;
  }
  void pass(unlock::SessionState state, const Hold& hold) {
    if (!state.available()) lock_.ports_.trusted.end();
    {
      const base::Lock lock(mutex_);
      last_ = state;
      if (isHeldBack_) state = away(state);
    }
    observer_(state, hold);
    lock_.main_.post([this] { lock_.announce(); });
  }

  VaultLock& lock_;
  Observer observer_;  ///< constant after `observe`
  // Guarded. A leaf.
  mutable base::Mutex mutex_;
  bool isHeldBack_ GUARDED_BY(mutex_);
  bool isReported_ GUARDED_BY(mutex_) = false;
  std::optional<unlock::SessionState> last_ GUARDED_BY(mutex_);
};

/// The system's check, and the phones beside it. For the first passphrase of a new vault nobody is asked who typed it
/// on the own terminal.
class VaultLock::Presence final : public unlock::OwnerPresence {
 public:
  explicit Presence(VaultLock& lock)
      : lock_(lock),
        either_({.system = lock.ports_.presence,
                 .phones = lock.ports_.phones,
                 .thread = lock.main_,
                 .mayAskPhones = [&lock] { return lock.mayAskPhones_; },
                 .requestor = [&lock] { return lock.requestor(); }}) {}

  std::optional<std::string> unavailable() override { return either_.unavailable(); }
  std::optional<std::string> unlockUnavailable() override { return either_.unlockUnavailable(); }
  void ask(Check check, const std::string& reason, Reply reply) override {
    if (lock_.isNew_ && lock_.isOnTerminal_ && reason == unlock::kSetReason) return reply(Granted{});
    either_.ask(check, reason, std::move(reply));
  }
  void withdraw() override { either_.withdraw(); }
  bool isVouchedFor() const { return either_.isVouchedFor(); }
  void stop() { either_.stop(); }

 private:
  VaultLock& lock_;
  PhonePresence either_;
};

VaultLock::VaultLock(Ports ports)
    : ports_(std::move(ports)),
      signals_(std::make_unique<Watched>(*this, ports_.isNew && ports_.ownTerminal != nullptr)),
      presence_(std::make_unique<Presence>(*this)),
      isNew_(ports_.isNew) {
  main_.run([this] {
    manager_ = std::make_unique<LockManager>(LockManager::Dependencies{
        .hardware = ports_.hardware,
        .presence = *presence_,
        .store = ports_.stores.configuration(),
        .gate = ports_.stores.gate(),
        .managedFollowsSession = ports_.managedFollowsSession,
        .signals = *signals_,
        .now = ports_.clock,
        .main = main_,
        .work = work_,
        .ownTerminal = ports_.ownTerminal,
    });
    manager_->onUnlockChange = [this](bool isUnlocked) { followed(isUnlocked); };
  });
}

VaultLock::~VaultLock() = default;

void VaultLock::start() {
  main_.run([this] {
    manager_->start();
    announce();
  });
}

void VaultLock::stop() {
  main_.run([this] {
    manager_->lock();
    manager_.reset();
    presence_->stop();
  });
}

void VaultLock::lookAgain() {
  main_.post([this] { announce(); });
}

std::string VaultLock::requestor() const {
  if (isOnTerminal_) return "the terminal that sorvaned runs on";
  const auto process = asking_ > 0 ? base::processInfo(asking_) : std::nullopt;
  return agent::processesForOwner(process ? std::vector{*process} : std::vector<base::ProcessInfo>{});
}

void VaultLock::wasOffered() {
  signals_->release();
}

void VaultLock::followed(bool isUnlocked) {
  if (isUnlocked) {
    isNew_ = false;
    if (manager_->openedBySystemCheck() && presence_->isVouchedFor()) ports_.trusted.begin();
    endReset();
    ports_.open(manager_->settings().resetCause().has_value());
    return;
  }
  ports_.trusted.end();
  ports_.close();
}

void VaultLock::noteRestored() {
  main_.post([this] {
    isRestored_ = true;
    endReset();
    announce();
  });
}

/// It waits for the next unlock where the vault was locked meanwhile.
void VaultLock::endReset() {
  if (!manager_ || !isRestored_) return;
  const auto error = manager_->restored();
  if (error && error->kind() == Case::vaultLocked) return;
  isRestored_ = false;
  if (error) base::diagnose("unlock", error->sentence() + " " + error->cause());
}

void VaultLock::noteRestoring(std::int64_t done, std::int64_t total) {
  valuesRestored_ = done;
  valuesToRestore_ = total;
}

void VaultLock::announce() {
  if (!manager_ || !ports_.onChange) return;
  Screen now{manager_->isUnlocked(), manager_->state().phase == unlock::LockPhase::asking, manager_->prompt()};
  if (screen_ == now) return;
  screen_ = std::move(now);
  ports_.onChange();
}

LockOutcome VaultLock::wait(const LockCaller& caller, std::function<void(const Reply& reply)> begin) {
  struct Pending {
    std::uint64_t number = 0;  ///< of the manager's thread
    base::Mutex mutex;
    base::Condition answered;
    std::optional<LockOutcome> outcome GUARDED_BY(mutex);
  };
  const auto pending = std::make_shared<Pending>();
  // On the manager's thread, too: nobody is asked for a caller that has its answer.
  const Reply reply = [this, pending](LockOutcome outcome) {
    if (pending->number == begun_) ports_.askFor({});
    const base::Lock lock(pending->mutex);
    pending->outcome = std::move(outcome);
    pending->answered.notify_all();
  };
  main_.post([this, pending, caller, begin = std::move(begin), reply] {
    pending->number = ++begun_;
    ports_.askFor(caller);
    isOnTerminal_ = caller.isOwnTerminal;
    asking_ = caller.peer;
    begin(reply);
    announce();
  });
  std::optional<LockOutcome> outcome;
  {
    base::Lock lock(pending->mutex);
    pending->answered.wait(lock.mutex(), caller.gone,
                           [&]() REQUIRES(pending->mutex) { return pending->outcome.has_value(); });
    outcome = std::move(pending->outcome);
  }
  if (!outcome) {
    // What somebody else began since goes on.
    main_.post([this, pending] {
      if (manager_ && pending->number == begun_) manager_->giveUp();
    });
    outcome = refused(UnlockError(Case::cancelled));
  }
  main_.post([this] { announce(); });
  return *std::move(outcome);
}

LockOutcome VaultLock::outcome(const LockManager::Outcome& outcome) {
  if (const auto* const error = std::get_if<UnlockError>(&outcome)) return refused(*error);
  return {std::holds_alternative<LockManager::Opened>(outcome) ? Kind::done : Kind::needsPassphrase, {}, {}};
}

LockOutcome VaultLock::outcome(const std::optional<UnlockError>& error) const {
  return error ? refused(*error) : LockOutcome{};
}

LockReport VaultLock::report() {
  LockReport report;
  main_.run([&] { report = reportNow(); });
  return report;
}

LockReport VaultLock::reportNow() {
  LockReport report;
  report.isUnlocked = manager_->isUnlocked();
  report.store = word(ports_.stores.record().kind);
  report.storeIsSealed = ports_.stores.isSealed();
  describe(report, manager_->prompt());
  report.systemCheckUnavailable = ports_.presence.unavailable();
  report.phoneUnlocks = !report.isUnlocked && report.prompt == "system" && ports_.phones.isConnected() &&
                        ports_.phones.unlockingYes() != PhoneYes::none;
  if (report.phoneUnlocks) {
    const bool needsBoth = manager_->settings().configuration().requirement == Requirement::withSystem;
    report.sentence = report.systemCheckUnavailable
                          ? std::string(needsBoth ? kOpensByPhoneFirst : kOpensByPhone)
                          : report.sentence + " " + std::string(needsBoth ? kPhoneIsCheckToo : kOpensByPhoneToo);
  }
  if (report.isUnlocked) {
    report.prompt = "open";
    report.sentence = "sorvane is open.";
  }
  const unlock::UnlockSettings& settings = manager_->settings();
  report.requirement = word(settings.configuration().requirement);
  report.hasPassphrase = settings.configuration().passphrase.has_value();
  report.followsSession = settings.followsSession();
  report.sessionIsReported = signals_->isReported();
  report.isManaged = settings.managedFollowsSession().has_value();
  report.heldLocked = manager_->state().heldLocked;
  report.isAsking = manager_->state().phase == unlock::LockPhase::asking;
  report.waitSeconds = manager_->waitSeconds();
  report.notices.emplace_back(ports_.stores.protectionInWords());
  if (report.hasPassphrase && !report.storeIsSealed && ports_.stores.record().kind == vault::StoreKind::embedded) {
    report.notices.emplace_back(kNotSealedYet);
  }
  if (report.followsSession && !report.sessionIsReported) report.notices.emplace_back(kNoLoginManager);
  if (settings.unsaved()) report.notices.emplace_back(UnlockError::storage({}).sentence());
  if (settings.resetCause()) report.notices.emplace_back(resetInWords(report));
  if (const std::int64_t total = valuesToRestore_; total > 0) report.restoring = {valuesRestored_, total};
  report.version = SORVANE_VERSION;
  report.supportFolder = ports_.supportFolder.string();
  return report;
}

LockOutcome VaultLock::unlockWithSystem(Method method, const LockCaller& caller) {
  const auto button = method == Method::first ? LockManager::Button::primary : LockManager::Button::password;
  return wait(caller, [this, button](const Reply& reply) {
    // Who asks for the login password is asked for it.
    mayAskPhones_ = button == LockManager::Button::primary;
    manager_->unlockWithSystem(button, [this, reply](const auto& how) { reply(outcome(how)); });
  });
}

LockOutcome VaultLock::unlockWithPassphrase(base::SecretText passphrase, const LockCaller& caller) {
  return wait(caller, [this, text = held(std::move(passphrase))](const Reply& reply) {
    manager_->unlockWithPassphrase(std::move(*text), [this, reply](const auto& how) { reply(outcome(how)); });
  });
}

LockOutcome VaultLock::lock(Lock lock) {
  return wait({}, [this, lock](const Reply& reply) {
    lock == Lock::held ? manager_->holdLocked() : manager_->lock();
    reply({});
  });
}

LockOutcome VaultLock::setPassphrase(agent::TypedPassphrase passphrase, const std::string& requirement,
                                     const LockCaller& caller) {
  const auto wanted = unlock::passphraseRequirementOf(requirement).value_or(unlock::PassphraseRequirement::only);
  return wait(caller, [this, wanted, text = held(std::move(passphrase))](const Reply& reply) {
    manager_->setPassphrase(typed(std::move(*text)), wanted, [this, reply](const auto& error) {
      if (!error) wasOffered();
      reply(outcome(error));
    });
  });
}

LockOutcome VaultLock::changePassphrase(base::SecretText current, agent::TypedPassphrase passphrase,
                                        const LockCaller& caller) {
  return wait(caller, [this, known = held(std::move(current)), text = held(std::move(passphrase))](const Reply& reply) {
    manager_->changePassphrase(std::move(*known), typed(std::move(*text)),
                               [this, reply](const auto& error) { reply(outcome(error)); });
  });
}

LockOutcome VaultLock::removePassphrase(std::optional<base::SecretText> current, const LockCaller& caller) {
  return wait(caller, [this, known = held(std::move(current))](const Reply& reply) {
    manager_->removePassphrase(std::move(*known), [this, reply](const auto& error) { reply(outcome(error)); });
  });
}

LockOutcome VaultLock::changeRequirement(const std::string& requirement, std::optional<base::SecretText> current,
                                         const LockCaller& caller) {
  const auto wanted = unlock::passphraseRequirementOf(requirement);
  if (!wanted) return refused(UnlockError(Case::cancelled));
  return wait(caller, [this, wanted, known = held(std::move(current))](const Reply& reply) {
    manager_->changeRequirement(*wanted, std::move(*known),
                                [this, reply](const auto& error) { reply(outcome(error)); });
  });
}

LockOutcome VaultLock::changeFollowsSession(bool follows, std::optional<base::SecretText> current,
                                            const LockCaller& caller) {
  return wait(caller, [this, follows, known = held(std::move(current))](const Reply& reply) {
    manager_->changeFollowsSession(follows, std::move(*known),
                                   [this, reply](const auto& error) { reply(outcome(error)); });
  });
}

LockOutcome VaultLock::reset(const LockCaller& caller) {
  return wait(caller,
              [this](const Reply& reply) { manager_->reset([this, reply](const auto& how) { reply(outcome(how)); }); });
}

}  // namespace sorvane::app
