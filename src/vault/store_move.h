#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "base/error.h"
#include "vault/secret_store.h"

namespace sorvane::vault {

/// What an operation that needs values is refused with while a move runs.
inline constexpr std::string_view kStoreMoveRunning = "sorvane is still moving its keys into the protected Keychain.";

/// StoreMoveError carries storeMoveFailure of what went wrong; never a value.
class StoreMoveError : public base::Error {
 public:
  using Error::Error;
};
std::string storeMoveFailure(std::string_view error);

/// StoreMoveSteps is what the caller sees and decides of a move.
struct StoreMoveSteps {
  /// Called before each item with the number of steps done and of all steps (each item is copied and later removed);
  /// false stops the move.
  std::function<bool(std::size_t done, std::size_t total)> proceed;
  /// Called once the destination holds every item and the marker. The caller records durably that the destination is
  /// now the store in use; nothing was removed yet, and nothing is when it throws.
  std::function<void()> adopt;
};

enum class StoreMoveOutcome {
  moved,          ///< the destination is in use, the old store is empty
  stopped,        ///< before `adopt`: the old store is whole and still in use
  remainderLeft,  ///< after `adopt`: the destination is in use, finishStoreMove removes what is left in the old store
};

/// Moves every item of `from` to `to`: copies each and reads it back, writes the marker account, calls `adopt`, removes
/// the items of `from`. Nobody may write to either store meanwhile. A move that failed, was stopped or killed before
/// `adopt` is simply run again and repeats what is missing or has changed since; afterwards finishStoreMove is for it.
/// Refused when `to` holds the vault key of another vault, or is the same store as `from`. Throws StoreMoveError.
StoreMoveOutcome moveStore(EnumerableSecretStore& from, EnumerableSecretStore& to, const StoreMoveSteps& steps);

/// Removes what an interrupted move left in `from`, for a caller whose store in use is `to`. `adopt` is not called.
/// Nothing happens when `from` is empty; refused without the marker in `to`. Throws StoreMoveError.
StoreMoveOutcome finishStoreMove(EnumerableSecretStore& from, EnumerableSecretStore& to, const StoreMoveSteps& steps);

}  // namespace sorvane::vault
