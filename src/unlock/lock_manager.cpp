#include "unlock/lock_manager.h"

#include "base/diagnostics.h"

namespace sorvane::unlock {

using Case = UnlockError::Case;

namespace {

/// For diagnostics: what was shown, and why.
std::string describe(const UnlockError& error) {
  return error.sentence() + " " + error.cause();
}

UnlockError stale() {
  return UnlockError(Case::cancelled);
}

/// The password button asks for the password, and so does the first one where there is nothing else.
OwnerPresence::Check checkOf(LockManager::Button button, const UnlockHardware& hardware) {
  const bool isPassword =
      button == LockManager::Button::password || choicesOf(hardware).primary == SystemUnlockMethod(PasswordMethod{});
  return isPassword ? OwnerPresence::Check::passwordOnly : OwnerPresence::Check::any;
}

/// Whether the event locks what is locked already: a store may be open all the same, for an attempt or a reset.
bool locks(LockEvent event, bool followsSession) {
  return event == LockEvent::lock || event == LockEvent::hold || event == LockEvent::resetFailed ||
         event == LockEvent::givenUp || (event == LockEvent::sessionLost && followsSession);
}

}  // namespace

LockManager::LockManager(Dependencies dependencies)
    : dependencies_(std::move(dependencies)), settings_(dependencies_.store), backOff_(dependencies_.now) {}

LockManager::~LockManager() {
  dropQuestion();
}

void LockManager::start() {
  hardware_ = dependencies_.hardware();
  settings_.setManagedFollowsSession(dependencies_.managedFollowsSession());
  state_.heldLocked = dependencies_.gate.isHeld();
  loadSettings();
  const auto session =
      dependencies_.signals.observe([this, toMain = toMain()](const SessionState& state, SessionSignals::Hold hold) {
        // The hold goes when the function does: after the vault was closed.
        toMain([this, state, hold = std::move(hold)] { followSession(state); });
      });
  sessionReported_ = session.has_value();
  followSession(session.value_or(SessionState{}));
}

LockRules LockManager::rules() const {
  return {.requirement = asked(),
          .followsSession = settings_.followsSession(),
          .settingsReadable = settings_.isReadable(),
          .sessionReported = sessionReported_};
}

PassphraseRequirement LockManager::asked() const {
  const PassphraseRequirement requirement = settings_.configuration().requirement;
  const bool isUncheckable = requirement == PassphraseRequirement::withSystem && state_.phase == LockPhase::locked &&
                             dependencies_.gate.isSealed() && dependencies_.presence.unavailable();
  return isUncheckable ? PassphraseRequirement::only : requirement;
}

bool LockManager::isOverdue() const {
  return pendingSince_ && dependencies_.now.instant() - *pendingSince_ > kLongestWait;
}

void LockManager::expire() {
  // The owner is being asked: that ends by itself.
  if (!isOverdue() || questionReply_) return;
  pendingSince_.reset();
  if (state_.phase == LockPhase::needsPassphrase) apply(LockEvent::attemptFailed);
  if (state_.phase == LockPhase::locked) closeGate();
}

void LockManager::keepHold() {
  try {
    dependencies_.gate.setHeld(state_.heldLocked);
  } catch (const UnlockError& error) {
    base::diagnose("unlock", describe(error));
  }
}

void LockManager::apply(LockEvent event) {
  const LockPhase phase = state_.phase;
  const bool wasUnlocked = state_.isUnlocked(), wasHeld = state_.heldLocked;
  state_ = nextState(state_, event, rules());
  if (state_.phase == LockPhase::needsPassphrase && phase != state_.phase) pendingSince_ = dependencies_.now.instant();
  generation_->store(state_.generation);
  if (state_.isUnlocked() != wasUnlocked && onUnlockChange) onUnlockChange(state_.isUnlocked());
  if (!state_.isUnlocked() && (wasUnlocked || locks(event, settings_.followsSession()))) closeGate();
  if (state_.heldLocked != wasHeld) keepHold();
}

void LockManager::closeGate() {
  // While it is still open.
  settings_.saveAgain();
  dependencies_.gate.close();
  // A change that could not be saved holds in memory alone.
  if (dependencies_.gate.isSealed() && !settings_.unsaved()) loadSettings();
}

void LockManager::loadSettings() {
  settings_.load();
  if (settings_.isStoreLost() && !state_.heldLocked) apply(LockEvent::hold);
}

void LockManager::followSession(const SessionState& session) {
  expire();
  apply(session.available() ? LockEvent::sessionBack : LockEvent::sessionLost);
  if (!state_.sessionAvailable && settings_.followsSession()) dropQuestion();
}

std::function<void(std::function<void()>)> LockManager::toMain() const {
  return [&main = dependencies_.main, alive = std::weak_ptr<const bool>(alive_)](std::function<void()> function) {
    // A copy and not a move: the function, and what it holds, goes as soon as it ran.
    main.post([alive, function = std::move(function)] {
      if (!alive.expired()) function();
    });
  };
}

LockManager::Then LockManager::whileFresh(Then then) const {
  return [this, generation = state_.generation, then = std::move(then)](std::optional<UnlockError> error) {
    if (!error && state_.generation != generation) error = stale();
    then(std::move(error));
  };
}

std::optional<UnlockError> LockManager::obstacle() {
  if (auto error = unreadable()) return error;
  if (settings_.followsSession() && !state_.sessionAvailable) return UnlockError::staysLocked(kSessionUnavailable);
  return std::nullopt;
}

std::optional<UnlockError> LockManager::unreadable() {
  expire();
  // What a reset does not mend may have mended itself: the credential store may be open by now.
  if (!settings_.isReadable() && !settings_.resetCause()) loadSettings();
  if (settings_.resetCause() && !settings_.isReadable()) return settings_.resetCause();
  if (settings_.isStoreLost()) return UnlockError::storeLost(settings_.loadFailure());
  if (!settings_.isReadable()) return UnlockError::storage(settings_.loadFailure());
  return std::nullopt;
}

LockManager::Prompt LockManager::prompt() const {
  if (!settings_.isReadable() && settings_.resetCause()) return ResetPrompt{settings_.loadFailure()};
  if (!settings_.isReadable()) return UnavailablePrompt{settings_.loadFailure()};
  if (settings_.followsSession() && !state_.sessionAvailable) {
    return UnavailablePrompt{std::string(kSessionUnavailable)};
  }
  const bool wantsPassphrase = asked() == PassphraseRequirement::only ||
                               (state_.phase == LockPhase::needsPassphrase && !isOverdue()) ||
                               state_.phase == LockPhase::checkingPassphrase;
  if (wantsPassphrase) return PassphrasePrompt{};
  if (auto sentence = dependencies_.presence.unlockUnavailable()) return UnavailablePrompt{*std::move(sentence)};
  return SystemPrompt{choicesOf(hardware_)};
}

void LockManager::unlockWithSystem(Button button, OutcomeReply reply) {
  if (state_.isUnlocked()) return reply(Opened{});
  if (auto error = obstacle()) return reply(*std::move(error));
  if (asked() == PassphraseRequirement::only) return reply(NeedsPassphrase{});
  dropQuestion();
  apply(LockEvent::systemAsked);
  // A passphrase that is being checked finishes first.
  if (state_.phase != LockPhase::asking) return reply(stale());
  const std::uint64_t generation = state_.generation;
  ask(dependencies_.presence, checkOf(button, hardware_), std::string(kUnlockReason),
      [this, generation, reply = std::move(reply)](std::optional<UnlockError> error) {
        if (state_.generation != generation) return reply(error.value_or(stale()));
        apply(error ? LockEvent::attemptFailed : LockEvent::systemGranted);
        if (error) return reply(*std::move(error));
        if (state_.isUnlocked()) return reply(Opened{});
        if (state_.phase == LockPhase::needsPassphrase) return reply(NeedsPassphrase{});
        reply(stale());
      });
}

void LockManager::unlockWithPassphrase(base::SecretText passphrase, OutcomeReply reply) {
  if (state_.isUnlocked()) return reply(Opened{});
  if (auto error = obstacle()) return reply(*std::move(error));
  apply(LockEvent::passphraseGiven);
  if (state_.phase != LockPhase::checkingPassphrase || checkingPassphrase_) return reply(stale());
  const std::uint64_t generation = state_.generation;
  checkPassphrase(std::make_shared<const base::SecretText>(std::move(passphrase)),
                  [this, generation, reply = std::move(reply)](std::optional<UnlockError> error) {
                    if (state_.generation != generation) return reply(error.value_or(stale()));
                    apply(error ? LockEvent::attemptFailed : LockEvent::passphraseRight);
                    if (error) return reply(*std::move(error));
                    state_.isUnlocked() ? reply(Opened{}) : reply(stale());
                  });
}

void LockManager::lock() {
  apply(LockEvent::lock);
  dropQuestion();
}

void LockManager::holdLocked() {
  apply(LockEvent::hold);
  dropQuestion();
}

void LockManager::giveUp() {
  apply(LockEvent::givenUp);
  dropQuestion();
}

std::int64_t LockManager::waitSeconds() {
  expire();
  const auto until = backOff_.waitsUntil(settings_.configuration());
  if (!until) return 0;
  return std::chrono::ceil<std::chrono::seconds>(*until - dependencies_.now.wall()).count();
}

void LockManager::confirm(const std::string& reason, std::function<void(bool)> reply) {
  ask(dependencies_.presence, OwnerPresence::Check::presence, reason,
      whileFresh([reply = std::move(reply)](const std::optional<UnlockError>& error) { reply(!error); }));
}

void LockManager::ask(OwnerPresence& presence, OwnerPresence::Check check, const std::string& reason, Then then) {
  dropQuestion();
  const std::uint64_t question = ++question_;
  asked_ = &presence;
  questionReply_ = std::move(then);
  presence.ask(check, reason, [this, toMain = toMain(), question, check](const OwnerPresence::Answer& answer) {
    toMain([this, question, check, answer] { answered(question, check, answer); });
  });
}

void LockManager::answered(std::uint64_t question, OwnerPresence::Check check, const OwnerPresence::Answer& answer) {
  if (question != question_ || !questionReply_) return;
  const Then then = std::exchange(questionReply_, nullptr);
  if (std::holds_alternative<OwnerPresence::Granted>(answer)) return then(std::nullopt);
  const auto* const failed = std::get_if<OwnerPresence::Failed>(&answer);
  if (failed == nullptr) return then(stale());
  then(
      UnlockError::systemCheckFailed({failed->code, check == OwnerPresence::Check::passwordOnly, failed->explanation}));
}

void LockManager::dropQuestion() {
  if (!questionReply_) return;
  const Then then = std::exchange(questionReply_, nullptr);
  asked_->withdraw();
  then(stale());
}

void LockManager::checkPassphrase(Passphrase passphrase, Then then) {
  const UnlockConfiguration& configuration = settings_.configuration();
  if (checkingPassphrase_) return then(stale());
  if (!configuration.passphrase) return then(UnlockError(Case::wrongPassphrase));
  if (const auto until = backOff_.waitsUntil(configuration)) {
    return then(UnlockError::wait(*until, dependencies_.now.wall()));
  }
  checkingPassphrase_ = true;
  Tried tried;
  tried.verifier = *configuration.passphrase;
  tried.generation = state_.generation;
  dependencies_.work.post([this, &gate = dependencies_.gate, &store = dependencies_.store, toMain = toMain(),
                           configuration, tried, passphrase = std::move(passphrase), then = std::move(then)]() mutable {
    tryPassphrase(gate, store, *passphrase, configuration, tried);
    toMain([this, tried, then] { checked(tried, then); });
  });
}

void LockManager::tryPassphrase(PassphraseGate& gate, UnlockConfigurationStore& store,
                                const base::SecretText& passphrase, const UnlockConfiguration& configuration,
                                Tried& tried) {
  tried.verdict = gate.attempt(passphrase, configuration);
  if (tried.verdict != Verdict::right) return;
  try {
    tried.stored = store.load();
  } catch (const UnlockError& error) {
    tried.unreadable = error;
  }
}

void LockManager::checked(const Tried& tried, const Then& then) {
  checkingPassphrase_ = false;
  std::optional<UnlockError> error;
  if (tried.verdict == Verdict::unknown || settings_.configuration().passphrase != tried.verifier) {
    error = stale();
  } else if (tried.verdict == Verdict::wrong) {
    countFailure();
    error = UnlockError(Case::wrongPassphrase);
  } else if (state_.generation != tried.generation) {
    error = stale();
  } else {
    error = honour(tried);
  }
  then(error);
  // What the attempt opened stays so for an open vault, and for the reset that it came upon.
  if (state_.isUnlocked()) return;
  if (settings_.isReadable()) return closeGate();
  pendingSince_ = dependencies_.now.instant();
}

void LockManager::countFailure() {
  UnlockConfiguration configuration = settings_.configuration();
  backOff_.noteFailure(configuration);
  // The count holds in memory whether or not it could be saved.
  if (const auto unsaved = settings_.change(configuration)) base::diagnose("unlock", describe(*unsaved));
}

std::optional<UnlockError> LockManager::honour(const Tried& tried) {
  const UnlockConfiguration before = settings_.configuration();
  UnlockConfiguration expected = before;
  // The passphrase was taken without the check that nobody can make: the settings may do without it.
  const bool isUnchecked =
      before.requirement == PassphraseRequirement::withSystem && !state_.isUnlocked() && !state_.systemCheckPassed;
  if (isUnchecked) expected.requirement = PassphraseRequirement::only;
  // What could not be saved is newer than what is stored.
  UnlockConfiguration configuration = settings_.unsaved() || !tried.stored ? before : *tried.stored;
  if (!settings_.unsaved() && !state_.isUnlocked()) {
    auto refused = tried.unreadable;
    if (!refused && agreementOf(configuration, expected) == Agreement::damaged) {
      refused = UnlockError(Case::settingsDamaged);
    }
    if (refused) {
      settings_.refuse(*refused);
      return refused;
    }
  }
  const bool asksMore = agreementOf(configuration, expected) == Agreement::asksMore;
  const bool counted = before.failedAttempts != 0 || before.lastFailure || configuration.failedAttempts != 0 ||
                       configuration.lastFailure;
  backOff_.noteSuccess(configuration);
  if (!counted && configuration.requirement == before.requirement && !settings_.unsaved()) {
    settings_.adopted(configuration);
  } else if (const auto unsaved = settings_.change(configuration)) {
    base::diagnose("unlock", describe(*unsaved));
  }
  if (!asksMore) return std::nullopt;
  if (!isUnchecked) return UnlockError::staysLocked(kLockFileChanged);
  const auto missing = dependencies_.presence.unavailable();
  return missing ? UnlockError::systemCheckMissing(*missing) : stale();
}

}  // namespace sorvane::unlock
