// How the gate seals the store, and what it clears away after an end at any point.
#include <cerrno>

#include "base/diagnostics.h"
#include "unlock/store_gate.h"
#include "vault/store_move.h"

namespace sorvane::unlock {
namespace {

void diagnose(const std::exception& error) {
  base::diagnose("unlock", error.what());
}

std::optional<base::Files::Contents> readWrapFile(base::Files& files, const std::filesystem::path& path) {
  try {
    return files.read(path, kMaxWrapBytes);
  } catch (const base::FileError& error) {
    // Too long, or no file at all: somebody's, and not what was written.
    if (error.number() != EFBIG && error.number() != EINVAL && error.number() != ELOOP) throw;
    throw StoreLost(std::string(sentenceOf(WrapRefusal::damaged)));
  }
}

}  // namespace

std::optional<StoreWrap> StoreGate::readWrap() const {
  if (lost_) throw StoreLost(*lost_);
  if (kind_.sealable == nullptr) return std::nullopt;
  const auto contents = readWrapFile(ports_.files, ports_.wrap);
  if (!contents) return std::nullopt;
  auto outcome = decodeWrap(base::textOf(contents->bytes));
  if (const auto* const refusal = std::get_if<WrapRefusal>(&outcome)) {
    throw StoreLost(std::string(sentenceOf(*refusal)));
  }
  return std::get<StoreWrap>(std::move(outcome));
}

void StoreGate::writeWrap(const StoreWrap& wrap) {
  ports_.files.writeAtomically(ports_.wrap, encodeWrap(wrap).bytes());
}

std::filesystem::path StoreGate::holdPath() const {
  return ports_.wrap.parent_path() / kHoldName;
}

bool StoreGate::isHeld() const {
  try {
    return ports_.files.identity(holdPath()).has_value();
  } catch (const base::FileError& error) {
    diagnose(error);
    return true;
  }
}

void StoreGate::setHeld(bool held) {
  try {
    const std::string mark = "held\n";
    held ? static_cast<void>(ports_.files.writeAtomically(holdPath(), base::bytesOf(mark)))
         : ports_.files.remove(holdPath());
  } catch (const base::FileError& error) {
    throw UnlockError::storage(error.sentence());
  }
}

/// Without a wrap that can be read nothing is moved or removed, but for a copy that no wrap speaks of.
void StoreGate::settle() {
  if (isSettled_ || kind_.sealable == nullptr) return;
  const auto wrap = readWrap();
  if (wrap) {
    settleSealed(*wrap);
  } else if (kind_.sealable->hasCopy()) {
    kind_.sealable->removeCopy();
  }
  isSettled_ = true;
}

void StoreGate::settleSealed(StoreWrap wrap) {
  SealableStore& store = *kind_.sealable;
  if (store.hasCopy()) wrap.newDatabase ? store.putCopyInPlace() : store.removeCopy();
  if (!store.hasPlainKey()) return;
  // It may be the key that was to be released, and not the one from before the sealing.
  if (!wrap.keyLayInClear) {
    wrap.keyLayInClear = true;
    writeWrap(wrap);
  }
  store.removePlainKey();
}

void StoreGate::seal(const WrappingKey& wrapping, const UnlockConfiguration& configuration, After after) {
  if (isMoving_) throw UnlockError::storage(std::string(vault::kStoreMoveRunning));
  auto before = readWrap();
  const bool wasOpen = opened_ != nullptr;
  crypto::SymmetricKey key = crypto::SymmetricKey::random();
  StoreWrap wrap;
  wrap.requirement = configuration.requirement;
  wrap.followsSession = configuration.followsSession;
  wrap.verifierSalt = configuration.passphrase->salt;
  wrap.newDatabase = true;
  sealStoreKey(wrap, wrapping, key);

  const StoreDoor::Pause pause(ports_.door);
  if (before && before->newDatabase) {
    before->newDatabase = false;
    writeWrap(*before);
  }
  Store from = usable();
  // The gate's, the door's and this one: somebody else would go on to use the database that is left behind.
  if (from.use_count() > (wasOpen ? 3 : 1)) throw UnlockError::storage("the store is in use");
  isSettled_ = false;
  kind_.sealable->writeCopy(*from, key,
                            [&](vault::SecretStore& copy) REQUIRES(mutex_) { saveInto(copy, configuration); });
  try {
    writeWrap(wrap);
  } catch (const std::exception&) {
    takeBack(before);
    throw;
  }
  from.reset();
  putInPlace(before, wasOpen);
  if (wasOpen || after == After::open) {
    openDoor(kind_.sealable->open(key));
    key_ = std::move(key);
  }
}

/// The wrap is written. Where the copy cannot take its place everything is as before, as long as that can be written.
void StoreGate::putInPlace(const std::optional<StoreWrap>& before, bool wasOpen) {
  SealableStore& store = *kind_.sealable;
  opened_.reset();
  ports_.door.open(nullptr);
  try {
    store.putCopyInPlace();
  } catch (const std::exception& error) {
    if (store.hasCopy()) {
      if (takeBack(before) && wasOpen) openDoor(before ? store.open(*key_) : store.openPlain());
      throw;
    }
    diagnose(error);  // it did, and only that the folder was synced is not known
  }
  try {
    store.removePlainKey();
    isSettled_ = true;
  } catch (const std::exception& error) {
    diagnose(error);  // the next one that settles removes it
  }
}

/// Puts the wrap from before back, or none. When even that fails it cannot be told which database counts: the store is
/// closed, and whoever settles finds out.
bool StoreGate::takeBack(const std::optional<StoreWrap>& before) {
  try {
    before ? writeWrap(*before) : ports_.files.remove(ports_.wrap);
  } catch (const std::exception& error) {
    diagnose(error);
    shutDoor();
    return false;
  }
  try {
    kind_.sealable->removeCopy();
  } catch (const std::exception& error) {
    diagnose(error);
  }
  return true;
}

}  // namespace sorvane::unlock
