#include "unlock/lock_manager.h"

#include "base/diagnostics.h"

namespace sorvane::unlock {

using Case = UnlockError::Case;

namespace {

UnlockError stale() {
  return UnlockError(Case::cancelled);
}

/// The password button asks for the password, and so does the first one where there is nothing else.
OwnerPresence::Check checkOf(LockManager::Button button, const UnlockHardware& hardware) {
  const bool isPassword =
      button == LockManager::Button::password || choicesOf(hardware).primary == SystemUnlockMethod(PasswordMethod{});
  return isPassword ? OwnerPresence::Check::passwordOnly : OwnerPresence::Check::any;
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
  settings_.load();
  const auto session =
      dependencies_.signals.observe([this, toMain = toMain()](const SessionState& state, SessionSignals::Hold hold) {
        // The hold goes when the function does: after the vault was closed.
        toMain([this, state, hold = std::move(hold)] { followSession(state); });
      });
  sessionReported_ = session.has_value();
  followSession(session.value_or(SessionState{}));
}

LockRules LockManager::rules() const {
  return {.requirement = settings_.configuration().requirement,
          .followsSession = settings_.followsSession(),
          .settingsReadable = settings_.isReadable(),
          .sessionReported = sessionReported_};
}

void LockManager::apply(LockEvent event) {
  const bool wasUnlocked = state_.isUnlocked();
  state_ = nextState(state_, event, rules());
  if (state_.isUnlocked() != wasUnlocked && onUnlockChange) onUnlockChange(state_.isUnlocked());
}

void LockManager::followSession(const SessionState& session) {
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
  // What a reset does not mend may have mended itself: the credential store may be open by now.
  if (!settings_.isReadable() && !settings_.resetCause()) settings_.load();
  if (settings_.resetCause() && !settings_.isReadable()) return settings_.resetCause();
  if (!settings_.isReadable()) return UnlockError::storage(settings_.loadFailure());
  if (settings_.followsSession() && !state_.sessionAvailable) return UnlockError(Case::cancelled);
  return std::nullopt;
}

LockManager::Prompt LockManager::prompt() const {
  if (!settings_.isReadable() && settings_.resetCause()) return ResetPrompt{settings_.loadFailure()};
  if (!settings_.isReadable()) return UnavailablePrompt{settings_.loadFailure()};
  if (settings_.followsSession() && !state_.sessionAvailable) {
    return UnavailablePrompt{std::string(kSessionUnavailable)};
  }
  const bool wantsPassphrase = settings_.configuration().requirement == PassphraseRequirement::only ||
                               state_.phase == LockPhase::needsPassphrase ||
                               state_.phase == LockPhase::checkingPassphrase;
  if (wantsPassphrase) return PassphrasePrompt{};
  if (auto sentence = dependencies_.presence.unavailable()) return UnavailablePrompt{*std::move(sentence)};
  return SystemPrompt{choicesOf(hardware_)};
}

void LockManager::unlockWithSystem(Button button, OutcomeReply reply) {
  if (state_.isUnlocked()) return reply(Opened{});
  if (auto error = obstacle()) return reply(*std::move(error));
  if (settings_.configuration().requirement == PassphraseRequirement::only) return reply(NeedsPassphrase{});
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
  then(UnlockError::systemCheckFailed({failed->code, check == OwnerPresence::Check::passwordOnly}));
}

void LockManager::dropQuestion() {
  if (!questionReply_) return;
  const Then then = std::exchange(questionReply_, nullptr);
  asked_->withdraw();
  then(stale());
}

LockManager::Verdict LockManager::verdictOf(const PassphraseVerifier& verifier, const base::SecretText& passphrase) {
  try {
    return verifier.check(passphrase.view()) ? Verdict::right : Verdict::wrong;
  } catch (const crypto::PassphraseKeyError& error) {
    // Nothing typed is wrong like any other; what could not be computed is neither.
    if (error.kind() == crypto::PassphraseKeyError::Case::invalidPassword) return Verdict::wrong;
    base::diagnose("unlock", error.sentence());
  } catch (const std::exception& error) {
    base::diagnose("unlock", error.what());
  }
  return Verdict::unknown;
}

void LockManager::checkPassphrase(Passphrase passphrase, Then then) {
  const UnlockConfiguration& configuration = settings_.configuration();
  if (checkingPassphrase_) return then(stale());
  if (!configuration.passphrase) return then(UnlockError(Case::wrongPassphrase));
  if (const auto until = backOff_.waitsUntil(configuration)) {
    return then(UnlockError::wait(*until, dependencies_.now.wall()));
  }
  checkingPassphrase_ = true;
  dependencies_.work.post([this, toMain = toMain(), verifier = *configuration.passphrase,
                           passphrase = std::move(passphrase), generation = state_.generation, then = std::move(then)] {
    const Verdict verdict = verdictOf(verifier, *passphrase);
    toMain([this, verifier, verdict, generation, then] { checked(verifier, verdict, generation, then); });
  });
}

void LockManager::checked(const PassphraseVerifier& verifier, Verdict verdict, std::uint64_t generation,
                          const Then& then) {
  checkingPassphrase_ = false;
  UnlockConfiguration configuration = settings_.configuration();
  if (verdict == Verdict::unknown || configuration.passphrase != verifier) return then(stale());
  if (verdict == Verdict::right && state_.generation != generation) return then(stale());
  const UnlockConfiguration before = configuration;
  verdict == Verdict::right ? backOff_.noteSuccess(configuration) : backOff_.noteFailure(configuration);
  // The count holds in memory whether or not it could be saved.
  const auto unsaved = configuration != before ? settings_.change(configuration) : settings_.saveAgain();
  if (unsaved) base::diagnose("unlock", unsaved->sentence() + " " + unsaved->cause());
  then(verdict == Verdict::right ? std::nullopt : std::optional(UnlockError(Case::wrongPassphrase)));
}

}  // namespace sorvane::unlock
