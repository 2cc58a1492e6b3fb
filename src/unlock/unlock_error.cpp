#include "unlock/unlock_error.h"

#include <algorithm>

#include "unlock/owner_presence.h"

namespace sorvane::unlock {
namespace {

std::string sentenceOf(UnlockError::Case kind) {
  using Case = UnlockError::Case;
  switch (kind) {
    case Case::wait:
      return "Too many tries.";
    case Case::storage:
      return "sorvane couldn’t read or save its unlock settings in the Keychain.";
    case Case::systemCheckFailed:
      return "Your Mac could not show the unlock prompt. Try again.";
    case Case::vaultLocked:
      return "Unlock sorvane first.";
    case Case::cancelled:
      return "Couldn’t verify. Try again.";
    case Case::wrongPassphrase:
      return "Wrong passphrase.";
    case Case::tooShort:
      return "Use at least " + std::to_string(kMinPassphraseCharacters) + " characters.";
    case Case::mismatch:
      return "The passphrases don’t match.";
    case Case::managed:
      return "Your organization manages this setting.";
    case Case::settingsMissing:
      return "sorvane’s unlock settings are missing.";
    case Case::settingsDamaged:
      return "sorvane’s unlock settings can’t be read. They may be damaged or replaced.";
    case Case::vaultKeyMismatch:
      return "sorvane’s vault key in the Keychain doesn’t open this vault. It may have been removed or replaced.";
  }
  return {};
}

std::string sentenceOf(const SystemCheckFailure& failure) {
  if (failure.code == OwnerPresence::Failed::kNoLoginPassword) {
    return "This Mac has no login password set, so it cannot ask for one.";
  }
  if (failure.code == OwnerPresence::Failed::kNotAccepted) return "Your Mac did not accept that. Try again.";
  std::string sentence = failure.passwordPrompt ? "Your Mac could not show the password prompt. Try again."
                                                : sentenceOf(UnlockError::Case::systemCheckFailed);
  if (!failure.explanation.empty()) sentence += " " + failure.explanation;
  return sentence;
}

}  // namespace

std::string diagnosticText(const SystemCheckFailure& failure) {
  return "LocalAuthentication error " + std::to_string(failure.code);
}

std::string waitSentence(base::Date until, std::chrono::system_clock::time_point now) {
  const auto seconds = std::max<std::int64_t>(1, std::chrono::ceil<std::chrono::seconds>(until - now).count());
  std::string text = "Too many tries. Try again in ";
  if (seconds < 60) return text + std::to_string(seconds) + (seconds == 1 ? " second." : " seconds.");
  return text + std::to_string((seconds + 59) / 60) + (seconds <= 60 ? " minute." : " minutes.");
}

UnlockError::UnlockError(Case kind) : UnlockError(kind, sentenceOf(kind)) {}

UnlockError UnlockError::wait(base::Date until, std::chrono::system_clock::time_point now) {
  UnlockError error(Case::wait, waitSentence(until, now));
  error.until_ = until;
  return error;
}

UnlockError UnlockError::storage(const std::string& cause) {
  UnlockError error(Case::storage);
  error.cause_ = cause;
  return error;
}

UnlockError UnlockError::storeLost(const std::string& sentence) {
  UnlockError error(Case::storage, sentence);
  error.cause_ = sentence;
  error.storeLost_ = true;
  return error;
}

UnlockError UnlockError::systemCheckFailed(const SystemCheckFailure& failure) {
  UnlockError error(Case::systemCheckFailed, sentenceOf(failure));
  error.failure_ = failure;
  return error;
}

UnlockError UnlockError::systemCheckMissing(const std::string& sentence) {
  UnlockError error(Case::systemCheckFailed, sentence);
  error.failure_ = SystemCheckFailure{OwnerPresence::Failed::kNotInteractive, false, {}};
  return error;
}

UnlockError UnlockError::staysLocked(std::string_view sentence) {
  return {Case::cancelled, std::string(sentence)};
}

bool UnlockError::operator==(const UnlockError& other) const {
  return kind_ == other.kind_ && until_ == other.until_ && failure_ == other.failure_ && cause_ == other.cause_;
}

}  // namespace sorvane::unlock
