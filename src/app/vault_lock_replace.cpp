// How the lock stands by while the vault that it closes is replaced whole.
#include <exception>

#include "app/vault_lock.h"

namespace sorvane::app {

using agent::LockCaller;
using agent::LockOutcome;
using unlock::UnlockError;

namespace {

constexpr std::string_view kUnlockToRestore =
    "sorvane is locked and can be unlocked, so nothing was restored. Unlock it with sorvane unlock, then restore.";
constexpr std::string_view kResetToRestore =
    " Nothing was restored. Run sorvane unlock reset, then restore the backup as usual.";
constexpr std::string_view kOpenMeanwhile =
    "sorvane is open or opening, so its vault was not set aside. Nothing was restored. Restore the backup again.";
constexpr std::string_view kOpensWithSession =
    "The backup is in place. sorvane opens when you are back in your session.";

/// The sentence leads to what makes the ordinary restore possible.
LockOutcome leadingThere(LockOutcome refused, UnlockError::Case kind) {
  using Case = UnlockError::Case;
  if (kind == Case::vaultLocked) refused.sentence = kUnlockToRestore;
  if (kind == Case::cancelled) refused.sentence = kOpenMeanwhile;
  const bool isReset = kind == Case::settingsMissing || kind == Case::settingsDamaged || kind == Case::vaultKeyMismatch;
  if (isReset) refused.sentence += kResetToRestore;
  return refused;
}

}  // namespace

std::optional<LockOutcome> VaultLock::whyNotReplaced() {
  std::optional<UnlockError> error(UnlockError::Case::cancelled);
  main_.run([&] {
    if (manager_) error = manager_->obstacleToReplacing();
  });
  if (!error && ports_.stores.record().kind != vault::StoreKind::embedded) {
    error = UnlockError(UnlockError::Case::vaultLocked);
  }
  if (!error) return std::nullopt;
  return leadingThere(outcome(error), error->kind());
}

LockOutcome VaultLock::confirmReplacement(const std::string& reason, const LockCaller& caller) {
  return wait(caller, [this, reason](const Reply& reply) {
    manager_->confirmReplacement(reason, [this, reply](const auto& error) { reply(outcome(error)); });
  });
}

LockOutcome VaultLock::replaceStore(const std::function<void()>& replace) {
  std::optional<UnlockError> error(UnlockError::Case::cancelled);
  std::exception_ptr failure;
  bool wasReplaced = false;
  main_.run([&] {
    if (!manager_) return;
    try {
      error = manager_->replaceStore([&] {
        ports_.replacing();
        replace();
        wasReplaced = true;
      });
    } catch (...) {
      failure = std::current_exception();
    }
    ports_.replaced();
    announce();
  });
  if (failure) std::rethrow_exception(failure);
  if (!error) return {};
  if (wasReplaced) return {LockOutcome::Kind::done, {}, std::string(kOpensWithSession)};
  return leadingThere(outcome(error), error->kind());
}

}  // namespace sorvane::app
