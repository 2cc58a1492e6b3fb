#pragma once

#include "vault/store_move.h"

namespace sorvane::vault {

/// Brings the items of a store's old domain into its new one; for every start, before anything is read. The marker
/// account in the new domain is all that is remembered from one start to the next: with it the new domain is in use,
/// without it the items are moved (see moveStore) and the marker written. The old items are removed once every one was
/// read back in the new domain.
///
/// Where the marker is there already, the old domain is cleared of what an interrupted removal left, known by this
/// vault's key among it; items under another key, or under none, are left alone. What stands in the way of a removal
/// holds up no start: the outcome is remainderLeft and the next start tries again.
///
/// `stopped`: nothing is in use yet, and nothing of the old domain was removed. Throws StoreMoveError when the items
/// could not be brought over, or the new domain cannot be read; the old domain is then whole.
StoreMoveOutcome moveDomain(EnumerableSecretStore& old, EnumerableSecretStore& fresh, const StoreMoveSteps& steps);

/// Uses the new domain from the start, for a vault that never had items in the old one: what lies there may be of
/// anybody's making and is left alone, now and by every moveDomain. Throws StoreMoveError.
void beginInNewDomain(SecretStore& fresh);

}  // namespace sorvane::vault
