#include "base/diagnostics.h"
#include "base/unicode.h"
#include "unlock/lock_manager.h"

namespace sorvane::unlock {

using Case = UnlockError::Case;

namespace {

using Passphrase = std::shared_ptr<const base::SecretText>;

Passphrase shared(std::optional<base::SecretText> text) {
  return text ? std::make_shared<const base::SecretText>(*std::move(text)) : nullptr;
}

/// Characters as the person counts them, accents composed.
std::size_t charactersIn(const base::SecretText& text) {
  const auto normal = base::nfcOfSecret(text.view());
  if (!normal) return 0;
  std::size_t count = 0;
  for (std::string_view rest = normal->view(); !rest.empty(); ++count) rest.remove_prefix(base::decodeUtf8(rest).size);
  return count;
}

bool isSameText(const base::SecretText& left, const base::SecretText& right) {
  const auto one = base::nfcOfSecret(left.view()), other = base::nfcOfSecret(right.view());
  return one && other && one->sameAs(other->view());
}

UnlockError noSystemCheck() {
  return UnlockError::systemCheckFailed({OwnerPresence::Failed::kNotInteractive, false, {}});
}

}  // namespace

std::optional<UnlockError> LockManager::refusal(const NewPassphrase& passphrase) const {
  if (!isSameText(passphrase.text, passphrase.confirmation)) return UnlockError(Case::mismatch);
  if (charactersIn(passphrase.text) < kMinPassphraseCharacters) return UnlockError(Case::tooShort);
  return std::nullopt;
}

void LockManager::authorize(const std::string& reason, Passphrase current, Then then) {
  then = whileFresh(std::move(then));
  if (dependencies_.presence.unavailable() && settings_.isReadable() && settings_.configuration().passphrase) {
    return current ? checkPassphrase(std::move(current), std::move(then)) : then(UnlockError(Case::wrongPassphrase));
  }
  askOwner(reason, std::move(then));
}

void LockManager::askOwner(const std::string& reason, Then then) {
  OwnerPresence* asked = &dependencies_.presence;
  if (asked->unavailable()) asked = dependencies_.ownTerminal;
  if (asked == nullptr || asked->unavailable()) return then(noSystemCheck());
  ask(*asked, OwnerPresence::Check::presence, reason, std::move(then));
}

void LockManager::authorizeWith(const std::string& reason, Passphrase current, Then then) {
  then = whileFresh(std::move(then));
  if (!current) return then(UnlockError(Case::wrongPassphrase));
  if (dependencies_.presence.unavailable()) return checkPassphrase(std::move(current), std::move(then));
  ask(dependencies_.presence, OwnerPresence::Check::presence, reason,
      whileFresh([this, current, then](std::optional<UnlockError> error) {
        error ? then(std::move(error)) : checkPassphrase(current, then);
      }));
}

void LockManager::setPassphrase(NewPassphrase passphrase, PassphraseRequirement requirement, ChangeReply reply) {
  const bool isFirst = !settings_.configuration().passphrase;
  if (!state_.isUnlocked()) {
    // A new vault is offered a passphrase before its session opens it.
    if (auto error = unreadable()) return reply(*std::move(error));
    if (!isFirst) return reply(UnlockError(Case::vaultLocked));
  }
  if (auto error = refusal(passphrase)) return reply(error);
  // One that is set is changed, which asks for it.
  if (!isFirst) return reply(UnlockError(Case::wrongPassphrase));
  if (requirement == PassphraseRequirement::off) requirement = PassphraseRequirement::withSystem;
  // What could never be asked would keep the owner out for good.
  if (requirement == PassphraseRequirement::withSystem && dependencies_.presence.unavailable()) {
    return reply(noSystemCheck());
  }
  authorize(std::string(kSetReason), nullptr,
            [this, text = shared(std::move(passphrase.text)), requirement,
             reply = std::move(reply)](std::optional<UnlockError> error) {
              // One that was set while the owner was asked is not replaced unasked.
              if (!error && settings_.configuration().passphrase) error = UnlockError(Case::cancelled);
              error ? reply(std::move(error)) : adopt(text, requirement, reply);
            });
}

void LockManager::changePassphrase(base::SecretText current, NewPassphrase passphrase, ChangeReply reply) {
  if (!state_.isUnlocked()) return reply(UnlockError(Case::vaultLocked));
  if (auto error = refusal(passphrase)) return reply(error);
  if (!settings_.configuration().passphrase) return reply(UnlockError(Case::wrongPassphrase));
  authorizeWith(std::string(kChangeReason), shared(std::move(current)),
                [this, text = shared(std::move(passphrase.text)), reply](std::optional<UnlockError> error) {
                  error ? reply(std::move(error)) : adopt(text, settings_.configuration().requirement, reply);
                });
}

void LockManager::adopt(Passphrase passphrase, PassphraseRequirement requirement, ChangeReply reply) {
  UnlockConfiguration configuration = settings_.configuration();
  configuration.requirement = requirement;
  changeStore(
      std::move(configuration),
      [&gate = dependencies_.gate, passphrase = std::move(passphrase), generation = state_.generation,
       now = generation_](UnlockConfiguration& changed) {
        changed.passphrase = PassphraseVerifier::make(passphrase->view());
        if (now->load() != generation) throw UnlockError(Case::cancelled);
        gate.adopt(*passphrase, changed);
      },
      std::move(reply));
}

void LockManager::release(ChangeReply reply) {
  UnlockConfiguration configuration = settings_.configuration();
  configuration.passphrase.reset();
  configuration.requirement = PassphraseRequirement::off;
  changeStore(
      std::move(configuration), [&gate = dependencies_.gate](UnlockConfiguration& changed) { gate.release(changed); },
      std::move(reply));
}

void LockManager::changeStore(UnlockConfiguration configuration, std::function<void(UnlockConfiguration&)> change,
                              ChangeReply reply) {
  // Another change was quicker; this one was confirmed for what stood before it.
  if (changingStore_) return reply(UnlockError(Case::cancelled));
  changingStore_ = true;
  configuration.failedAttempts = 0;
  configuration.lastFailure.reset();
  dependencies_.work.post([this, toMain = toMain(), configuration = std::move(configuration),
                           change = std::move(change), reply = std::move(reply), generation = state_.generation,
                           now = generation_]() mutable {
    std::optional<UnlockError> error;
    try {
      if (now->load() != generation) throw UnlockError(Case::cancelled);
      change(configuration);
    } catch (const UnlockError& failed) {
      error = failed.kind() == Case::vaultLocked ? UnlockError(Case::cancelled) : failed;
      if (!failed.cause().empty()) base::diagnose("unlock", failed.cause());
    } catch (const std::exception& failed) {
      base::diagnose("unlock", failed.what());
      error = UnlockError(Case::cancelled);
    }
    toMain([this, configuration, error, reply] { storeChanged(configuration, error, reply); });
  });
}

/// It was made or not, whatever became of the vault meanwhile.
void LockManager::storeChanged(UnlockConfiguration configuration, const std::optional<UnlockError>& error,
                               const ChangeReply& reply) {
  changingStore_ = false;
  if (!error) {
    backOff_.noteSuccess(configuration);
    settings_.adopted(configuration);
  }
  if (!state_.isUnlocked()) closeGate();
  reply(error);
}

void LockManager::removePassphrase(std::optional<base::SecretText> current, ChangeReply reply) {
  if (!state_.isUnlocked()) return reply(UnlockError(Case::vaultLocked));
  if (!settings_.configuration().passphrase) return reply(std::nullopt);
  const Then then = [this, reply = std::move(reply)](std::optional<UnlockError> error) {
    error ? reply(std::move(error)) : release(reply);
  };
  const std::string reason(kRemoveReason);
  dependencies_.gate.isSealed() ? authorizeWith(reason, shared(std::move(current)), then)
                                : authorize(reason, shared(std::move(current)), then);
}

void LockManager::changeRequirement(PassphraseRequirement requirement, std::optional<base::SecretText> current,
                                    ChangeReply reply) {
  if (requirement == PassphraseRequirement::off) return removePassphrase(std::move(current), std::move(reply));
  if (!state_.isUnlocked()) return reply(UnlockError(Case::vaultLocked));
  if (!settings_.configuration().passphrase) return reply(UnlockError(Case::wrongPassphrase));
  if (requirement == PassphraseRequirement::withSystem && dependencies_.presence.unavailable()) {
    return reply(noSystemCheck());
  }
  const Then then = [this, requirement, reply = std::move(reply)](std::optional<UnlockError> error) {
    if (error) return reply(std::move(error));
    UnlockConfiguration configuration = settings_.configuration();
    configuration.requirement = requirement;
    save(std::move(configuration), reply);
  };
  const std::string reason(kRequirementReason);
  dependencies_.gate.isSealed() ? authorizeWith(reason, shared(std::move(current)), then)
                                : authorize(reason, shared(std::move(current)), then);
}

void LockManager::changeFollowsSession(bool follows, std::optional<base::SecretText> current, ChangeReply reply) {
  if (settings_.managedFollowsSession()) return reply(UnlockError(Case::managed));
  if (!state_.isUnlocked()) return reply(UnlockError(Case::vaultLocked));
  if (settings_.configuration().followsSession == follows) return reply(std::nullopt);
  authorize(std::string(follows ? kFollowReason : kStopFollowingReason), shared(std::move(current)),
            [this, follows, reply = std::move(reply)](std::optional<UnlockError> error) {
              if (error) return reply(std::move(error));
              UnlockConfiguration configuration = settings_.configuration();
              configuration.followsSession = follows;
              save(std::move(configuration), reply);
            });
}

void LockManager::save(UnlockConfiguration configuration, const ChangeReply& reply) {
  if (changingStore_) return reply(UnlockError(Case::cancelled));
  auto error = settings_.change(configuration);
  // Whoever turns following on from outside the session is outside at once.
  if (!state_.sessionAvailable) apply(LockEvent::sessionLost);
  reply(std::move(error));
}

void LockManager::reset(OutcomeReply reply) {
  expire();
  if (settings_.isReadable() || !settings_.resetCause()) return reply(UnlockError(Case::cancelled));
  const Then confirmed = [this, reply = std::move(reply)](std::optional<UnlockError> error) {
    if (error) return reply(*std::move(error));
    error = resetSettings();
    apply(error ? LockEvent::resetFailed : LockEvent::resetGranted);
    if (error) return reply(*std::move(error));
    if (state_.isUnlocked()) return reply(Opened{});
    closeGate();
    reply(UnlockError(Case::cancelled));
  };
  authorize(std::string(kResetReason), nullptr, confirmed);
}

std::optional<UnlockError> LockManager::restored() {
  if (!state_.isUnlocked() || changingStore_) return UnlockError(Case::vaultLocked);
  if (!settings_.configuration().resetCause) return std::nullopt;
  UnlockConfiguration configuration = settings_.configuration();
  configuration.resetCause.reset();
  return settings_.change(configuration);
}

std::optional<UnlockError> LockManager::obstacleToReplacing() {
  if (state_.isUnlocked() || changingStore_) return UnlockError(Case::cancelled);
  auto error = unreadable();
  if (error && settings_.resetCause()) return error;
  if (!error && !dependencies_.gate.isSealed()) return UnlockError(Case::vaultLocked);
  return std::nullopt;
}

void LockManager::confirmReplacement(const std::string& reason, ChangeReply reply) {
  if (auto error = obstacleToReplacing()) return reply(std::move(error));
  askOwner(reason, whileFresh(std::move(reply)));
}

std::optional<UnlockError> LockManager::replaceStore(const std::function<void()>& replace) {
  if (auto error = obstacleToReplacing()) return error;
  dropQuestion();
  apply(LockEvent::lock);
  try {
    replace();
  } catch (...) {
    loadSettings();
    throw;
  }
  loadSettings();
  apply(LockEvent::resetGranted);
  return state_.isUnlocked() ? std::nullopt : std::optional(UnlockError::staysLocked(kSessionUnavailable));
}

std::optional<UnlockError> LockManager::resetSettings() {
  try {
    return settings_.reset(dependencies_.gate.fresh());
  } catch (const UnlockError& error) {
    return error;
  }
}

}  // namespace sorvane::unlock
