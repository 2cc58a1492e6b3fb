#include "vault/store_move.h"

#include <algorithm>
#include <optional>
#include <vector>

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

bool holds(SecretStore& store, std::string_view account, const base::SecretText& value) {
  const auto held = valueIn(store, account);
  return held && held->sameAs(value.view());
}

/// The items to copy, without an earlier move's marker. The vault key comes first: a destination that holds it is known
/// to be this vault's.
std::vector<std::string> itemsOf(EnumerableSecretStore& store) {
  std::vector<std::string> accounts = store.accounts();
  std::erase(accounts, kKeychainMovedAccount);
  std::stable_partition(accounts.begin(), accounts.end(), [](const auto& name) { return name == kMetadataKeyAccount; });
  return accounts;
}

class Move {
 public:
  Move(EnumerableSecretStore& from, EnumerableSecretStore& to, const StoreMoveSteps& steps)
      : from_(from), to_(to), steps_(steps), items_(itemsOf(from)), total_(items_.size() * 2) {}

  StoreMoveOutcome run() {
    const bool ours = checkDestination();
    // A marker of a move that came this far and was then given up no longer holds: the old store may have changed.
    to_.remove(kKeychainMovedAccount);
    for (const std::string& account : items_) {
      if (!goOn()) return StoreMoveOutcome::stopped;
      copy(account);
    }
    if (ours) removeLeftovers();
    if (!goesOnAt(done_)) return StoreMoveOutcome::stopped;
    writeMarker();
    if (steps_.adopt) steps_.adopt();
    return clear();
  }

  StoreMoveOutcome finish() {
    done_ = items_.size();
    // The marker of an earlier move in the other direction may be all that is left.
    const auto marker = valueIn(to_, kKeychainMovedAccount);
    if (!marker) {
      if (items_.empty()) return StoreMoveOutcome::moved;
      throw SecretStoreError::backend("the new store does not say that all items reached it");
    }
    if (holds(from_, kKeychainMovedAccount, *marker)) throw sameStore();
    return clear();
  }

 private:
  static SecretStoreError sameStore() {
    return SecretStoreError::backend("the old and the new store are one and the same");
  }
  bool goesOnAt(std::size_t done) const { return !steps_.proceed || steps_.proceed(done, total_); }
  bool goOn() { return goesOnAt(done_++); }

  /// Whether the destination already holds this vault's key, from an earlier attempt.
  bool checkDestination() {
    const auto theirs = valueIn(to_, kMetadataKeyAccount);
    if (!theirs) return false;
    const auto key = valueIn(from_, kMetadataKeyAccount);
    if (!key || !key->sameAs(theirs->view())) {
      throw SecretStoreError::backend("the new store already holds the keys of another vault");
    }
    return true;
  }

  void copy(const std::string& account) {
    const base::SecretText value = from_.read(account);
    if (holds(to_, account, value)) return;
    to_.store(account, value);
    if (!holds(to_, account, value)) {
      throw SecretStoreError::backend("the item " + account + " was read back differently");
    }
  }

  /// What an earlier attempt copied and the vault has deleted since.
  void removeLeftovers() {
    std::vector<std::string> kept = items_;
    std::sort(kept.begin(), kept.end());
    for (const std::string& account : itemsOf(to_)) {
      if (!std::binary_search(kept.begin(), kept.end(), account)) to_.remove(account);
    }
  }

  /// The marker is a fresh word each time: the old store shows it only when it is the new store under another name.
  void writeMarker() {
    const base::SecretText word(base::randomHexId());
    to_.store(kKeychainMovedAccount, word);
    if (!holds(to_, kKeychainMovedAccount, word)) {
      throw SecretStoreError::backend("the mark of the finished move was read back differently");
    }
    if (holds(from_, kKeychainMovedAccount, word)) {
      to_.remove(kKeychainMovedAccount);
      throw sameStore();
    }
  }

  /// The vault key goes last, so that what is left after an interruption is still known to be this vault's.
  StoreMoveOutcome clear() {
    std::reverse(items_.begin(), items_.end());
    for (const std::string& account : items_) {
      if (!goOn()) return StoreMoveOutcome::remainderLeft;
      from_.remove(account);
    }
    from_.remove(kKeychainMovedAccount);
    return StoreMoveOutcome::moved;
  }

  EnumerableSecretStore& from_;
  EnumerableSecretStore& to_;
  const StoreMoveSteps& steps_;
  std::vector<std::string> items_;
  const std::size_t total_;
  std::size_t done_ = 0;
};

}  // namespace

std::string storeMoveFailure(std::string_view error) {
  return "sorvane could not finish moving its keys into the protected Keychain (" + std::string(error) +
         "). Quit and reopen sorvane. If macOS asks to allow access, choose Always Allow.";
}

StoreMoveOutcome moveStore(EnumerableSecretStore& from, EnumerableSecretStore& to, const StoreMoveSteps& steps) {
  try {
    return Move(from, to, steps).run();
  } catch (const std::exception& error) {
    throw StoreMoveError(storeMoveFailure(error.what()));
  }
}

StoreMoveOutcome finishStoreMove(EnumerableSecretStore& from, EnumerableSecretStore& to, const StoreMoveSteps& steps) {
  try {
    return Move(from, to, steps).finish();
  } catch (const std::exception& error) {
    throw StoreMoveError(storeMoveFailure(error.what()));
  }
}

}  // namespace sorvane::vault
