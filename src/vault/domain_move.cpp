#include "vault/domain_move.h"

#include <optional>

#include "base/ids.h"
#include "vault/accounts.h"

namespace sorvane::vault {
namespace {

std::optional<base::SecretText> valueIn(SecretStore& store, std::string_view account) {
  try {
    return store.read(account);
  } catch (const SecretStoreError& error) {
    if (error.kind() != SecretStoreError::Case::notFound) throw;
    return std::nullopt;
  }
}

enum class Remainder {
  none,      ///< or somebody else's
  copied,    ///< of a move that reached its end but for the removal
  uncopied,  ///< items of a vault that the new domain does not know: the marker was written over an empty domain
};

Remainder remainderIn(EnumerableSecretStore& old, SecretStore& fresh) {
  if (old.accounts().empty()) return Remainder::none;
  const auto theirs = valueIn(old, kMetadataKeyAccount);
  if (!theirs) return Remainder::none;
  const auto ours = valueIn(fresh, kMetadataKeyAccount);
  if (!ours) return Remainder::uncopied;
  return ours->sameAs(theirs->view()) ? Remainder::copied : Remainder::none;
}

/// As moveStore; once the marker was written and read back, a failure to remove the old items is none of the start's.
StoreMoveOutcome moveAll(EnumerableSecretStore& old, EnumerableSecretStore& fresh, const StoreMoveSteps& steps) {
  bool inUse = false;
  const StoreMoveSteps noting{steps.proceed, [&] {
                                if (steps.adopt) steps.adopt();
                                inUse = true;
                              }};
  try {
    return moveStore(old, fresh, noting);
  } catch (const StoreMoveError&) {
    if (!inUse) throw;
    return StoreMoveOutcome::remainderLeft;
  }
}

bool isMarked(SecretStore& fresh) {
  try {
    return valueIn(fresh, kKeychainMovedAccount).has_value();
  } catch (const SecretStoreError& error) {
    throw StoreMoveError(storeMoveFailure(error.sentence()));
  }
}

}  // namespace

void beginInNewDomain(SecretStore& fresh) {
  if (isMarked(fresh)) return;
  try {
    fresh.store(kKeychainMovedAccount, base::SecretText(base::randomHexId()));
  } catch (const SecretStoreError& error) {
    throw StoreMoveError(storeMoveFailure(error.sentence()));
  }
}

StoreMoveOutcome moveDomain(EnumerableSecretStore& old, EnumerableSecretStore& fresh, const StoreMoveSteps& steps) {
  if (!isMarked(fresh)) return moveAll(old, fresh, steps);
  Remainder remainder = Remainder::none;
  try {
    remainder = remainderIn(old, fresh);
    if (remainder == Remainder::copied) return finishStoreMove(old, fresh, steps);
  } catch (const base::Error&) {
    return StoreMoveOutcome::remainderLeft;
  }
  return remainder == Remainder::uncopied ? moveAll(old, fresh, steps) : StoreMoveOutcome::moved;
}

}  // namespace sorvane::vault
