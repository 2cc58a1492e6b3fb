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
  return UnlockError::systemCheckFailed({OwnerPresence::Failed::kNotInteractive, false});
}

}  // namespace

std::optional<UnlockError> LockManager::refusal(const NewPassphrase& passphrase) const {
  if (!isSameText(passphrase.text, passphrase.confirmation)) return UnlockError(Case::mismatch);
  if (charactersIn(passphrase.text) < kMinPassphraseCharacters) return UnlockError(Case::tooShort);
  return std::nullopt;
}

void LockManager::authorize(const std::string& reason, Passphrase current, Then then) {
  then = whileFresh(std::move(then));
  if (!dependencies_.presence.unavailable()) {
    return ask(dependencies_.presence, OwnerPresence::Check::presence, reason, std::move(then));
  }
  if (settings_.isReadable() && settings_.configuration().passphrase) {
    return current ? checkPassphrase(std::move(current), std::move(then)) : then(UnlockError(Case::wrongPassphrase));
  }
  OwnerPresence* const terminal = dependencies_.ownTerminal;
  if (terminal == nullptr || terminal->unavailable()) return then(noSystemCheck());
  ask(*terminal, OwnerPresence::Check::presence, reason, std::move(then));
}

void LockManager::setPassphrase(NewPassphrase passphrase, PassphraseRequirement requirement, ChangeReply reply) {
  const bool isFirst = !settings_.configuration().passphrase;
  if (!state_.isUnlocked()) {
    if (auto error = obstacle()) return reply(*std::move(error));
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
  authorize(
      std::string(kSetReason), nullptr,
      [this, text = shared(std::move(passphrase.text)), requirement, reply = std::move(reply)](
          std::optional<UnlockError> error) { error ? reply(std::move(error)) : adopt(text, requirement, reply); });
}

void LockManager::changePassphrase(base::SecretText current, NewPassphrase passphrase, ChangeReply reply) {
  if (!state_.isUnlocked()) return reply(UnlockError(Case::vaultLocked));
  if (auto error = refusal(passphrase)) return reply(error);
  if (!settings_.configuration().passphrase) return reply(UnlockError(Case::wrongPassphrase));
  const bool asksSystem = !dependencies_.presence.unavailable();
  const Passphrase known = shared(std::move(current));
  const Then whenChecked =
      whileFresh([this, text = shared(std::move(passphrase.text)), reply](std::optional<UnlockError> error) {
        error ? reply(std::move(error)) : adopt(text, settings_.configuration().requirement, reply);
      });
  if (!asksSystem) return checkPassphrase(known, whenChecked);
  ask(dependencies_.presence, OwnerPresence::Check::presence, std::string(kChangeReason),
      whileFresh([this, known, whenChecked](std::optional<UnlockError> error) {
        error ? whenChecked(std::move(error)) : checkPassphrase(known, whenChecked);
      }));
}

void LockManager::adopt(Passphrase passphrase, PassphraseRequirement requirement, ChangeReply reply) {
  const auto verifier = std::make_shared<std::optional<PassphraseVerifier>>();
  const Then derived = whileFresh([this, verifier, before = settings_.configuration().passphrase, requirement,
                                   reply = std::move(reply)](std::optional<UnlockError> error) {
    if (error) return reply(std::move(error));
    UnlockConfiguration configuration = settings_.configuration();
    // Another change was quicker; this one was confirmed for what stood before it.
    if (configuration.passphrase != before) return reply(UnlockError(Case::cancelled));
    configuration.passphrase = *verifier;
    configuration.requirement = requirement;
    backOff_.noteSuccess(configuration);
    save(std::move(configuration), reply);
  });
  dependencies_.work.post([verifier, toMain = toMain(), passphrase = std::move(passphrase), derived] {
    try {
      *verifier = PassphraseVerifier::make(passphrase->view());
    } catch (const std::exception& error) {
      base::diagnose("unlock", error.what());
    }
    toMain([verifier, derived] { derived(*verifier ? std::nullopt : std::optional(UnlockError(Case::cancelled))); });
  });
}

void LockManager::removePassphrase(std::optional<base::SecretText> current, ChangeReply reply) {
  if (!state_.isUnlocked()) return reply(UnlockError(Case::vaultLocked));
  if (!settings_.configuration().passphrase) return reply(std::nullopt);
  authorize(std::string(kRemoveReason), shared(std::move(current)),
            [this, reply = std::move(reply)](std::optional<UnlockError> error) {
              if (error) return reply(std::move(error));
              UnlockConfiguration configuration = settings_.configuration();
              configuration.passphrase.reset();
              configuration.requirement = PassphraseRequirement::off;
              backOff_.noteSuccess(configuration);
              save(std::move(configuration), reply);
            });
}

void LockManager::changeRequirement(PassphraseRequirement requirement, std::optional<base::SecretText> current,
                                    ChangeReply reply) {
  if (requirement == PassphraseRequirement::off) return removePassphrase(std::move(current), std::move(reply));
  if (!state_.isUnlocked()) return reply(UnlockError(Case::vaultLocked));
  if (!settings_.configuration().passphrase) return reply(UnlockError(Case::wrongPassphrase));
  if (requirement == PassphraseRequirement::withSystem && dependencies_.presence.unavailable()) {
    return reply(noSystemCheck());
  }
  authorize(std::string(kRequirementReason), shared(std::move(current)),
            [this, requirement, reply = std::move(reply)](std::optional<UnlockError> error) {
              if (error) return reply(std::move(error));
              UnlockConfiguration configuration = settings_.configuration();
              configuration.requirement = requirement;
              save(std::move(configuration), reply);
            });
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
  auto error = settings_.change(configuration);
  // Whoever turns following on from outside the session is outside at once.
  if (!state_.sessionAvailable) apply(LockEvent::sessionLost);
  reply(std::move(error));
}

void LockManager::reset(OutcomeReply reply) {
  if (settings_.isReadable() || !settings_.resetCause()) return reply(UnlockError(Case::cancelled));
  authorize(std::string(kResetReason), nullptr, [this, reply = std::move(reply)](std::optional<UnlockError> error) {
    if (error) return reply(*std::move(error));
    if (auto unsaved = settings_.reset()) {
      apply(LockEvent::resetFailed);
      return reply(*std::move(unsaved));
    }
    apply(LockEvent::resetGranted);
    state_.isUnlocked() ? reply(Opened{}) : reply(UnlockError(Case::cancelled));
  });
}

}  // namespace sorvane::unlock
