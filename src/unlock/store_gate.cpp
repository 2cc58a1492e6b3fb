#include "unlock/store_gate.h"

#include "base/diagnostics.h"
#include "vault/sealed_files.h"
#include "vault/store_move.h"

namespace sorvane::unlock {

using Case = UnlockError::Case;

namespace {

/// What the files and the store say becomes an UnlockError; other exceptions are told as storage as well.
template <typename Call>
auto told(const Call& call) {
  try {
    return call();
  } catch (const UnlockError&) {
    throw;
  } catch (const StoreLost& error) {
    throw UnlockError::storeLost(error.sentence());
  } catch (const std::exception& error) {
    throw UnlockError::storage(error.what());
  }
}

void diagnose(const std::exception& error) {
  base::diagnose("unlock", error.what());
}

/// What store.wrap says of a configuration. The salt is that of the verifier where there is one.
void describe(StoreWrap& wrap, const UnlockConfiguration& configuration) {
  wrap.requirement = configuration.requirement;
  wrap.followsSession = configuration.followsSession;
  wrap.failedAttempts = configuration.failedAttempts;
  wrap.lastFailure = configuration.lastFailure;
  if (configuration.passphrase) wrap.verifierSalt = configuration.passphrase->salt;
}

/// What a sealed store that is not open is asked for.
UnlockConfiguration configurationOf(const StoreWrap& wrap) {
  PassphraseVerifier verifier{wrap.verifierSalt, {}, wrap.cost.memoryKiB, wrap.cost.iterations};
  return {std::move(verifier), wrap.requirement, wrap.followsSession, wrap.failedAttempts, wrap.lastFailure, {}};
}

void requirePassphrase(const UnlockConfiguration& configuration) {
  if (configuration.requirement == PassphraseRequirement::off || !configuration.passphrase) {
    throw UnlockError::storage("a sealed store cannot be without a passphrase");
  }
}

PassphraseGate::Verdict verdictOf(const PassphraseVerifier& verifier, const base::SecretText& passphrase) {
  using Verdict = PassphraseGate::Verdict;
  return verifier.check(passphrase.view()) ? Verdict::right : Verdict::wrong;
}

/// Nothing typed is wrong like any other; what could not be computed is neither.
template <typename Call>
PassphraseGate::Verdict computed(const Call& call) {
  using Verdict = PassphraseGate::Verdict;
  try {
    return call();
  } catch (const crypto::PassphraseKeyError& error) {
    if (error.kind() == crypto::PassphraseKeyError::Case::invalidPassword) return Verdict::wrong;
    diagnose(error);
  } catch (const std::exception& error) {
    diagnose(error);
  }
  return Verdict::unknown;
}

}  // namespace

StoreGate::StoreGate(Ports ports, Kind kind, FirstRun firstRun)
    : ports_(std::move(ports)), kind_(std::move(kind)), firstRun_(firstRun == FirstRun::yes) {}

// Trying a passphrase.

PassphraseGate::Verdict StoreGate::attempt(const base::SecretText& passphrase,
                                           const UnlockConfiguration& configuration) {
  return computed([&] {
    std::optional<StoreWrap> wrap;
    std::uint64_t closings = 0;
    {
      const base::Lock lock(mutex_);
      settle();
      wrap = readWrap();
      closings = closings_;
    }
    return wrap ? attemptSealed(passphrase, *wrap, closings) : attemptUnsealed(passphrase, configuration);
  });
}

PassphraseGate::Verdict StoreGate::attemptUnsealed(const base::SecretText& passphrase,
                                                   const UnlockConfiguration& configuration) {
  std::uint64_t closings = 0;
  {
    const base::Lock lock(mutex_);
    closings = closings_;
  }
  if (!configuration.passphrase) return Verdict::wrong;
  const Verdict verdict = verdictOf(*configuration.passphrase, passphrase);
  if (verdict == Verdict::right && configuration.requirement != PassphraseRequirement::off) {
    tryToSeal(passphrase, configuration, closings);
  }
  return verdict;
}

PassphraseGate::Verdict StoreGate::attemptSealed(const base::SecretText& passphrase, const StoreWrap& wrap,
                                                 std::uint64_t closings) {
  auto key = openStoreKey(wrap, passphrase.view());
  if (!key) return Verdict::wrong;
  {
    const base::Lock lock(mutex_);
    if (closings != closings_) return Verdict::unknown;
    if (!opened_) {
      openDoor(kind_.sealable->open(*key));
      key_ = std::move(key);
    }
  }
  mend(passphrase, closings);
  return Verdict::right;
}

/// The passphrase is right and at hand: what an end at the wrong moment left undone is done now.
void StoreGate::mend(const base::SecretText& passphrase, std::uint64_t closings) {
  std::optional<UnlockConfiguration> stored;
  bool isReliable = false, verifierFits = false, keyLayInClear = false;
  {
    const base::Lock lock(mutex_);
    const auto wrap = readWrap();
    if (!wrap || !opened_ || closings != closings_) return;
    try {
      stored = loadFrom(*opened_);
    } catch (const UnlockError&) {
      // Whoever asked for the attempt reads it as well, and tells.
    }
    isReliable = stored && agreementOf(*stored, configurationOf(*wrap)) != Agreement::damaged;
    verifierFits = isReliable && stored->passphrase->salt == wrap->verifierSalt;
    keyLayInClear = wrap->keyLayInClear;
  }
  if (verifierFits && !keyLayInClear) return;
  if (!verifierFits) {
    PassphraseVerifier verifier = PassphraseVerifier::make(passphrase.view(), ports_.cost);
    const base::Lock lock(mutex_);
    auto wrap = readWrap();
    if (!wrap || closings != closings_) return;
    if (!isReliable) {
      known_ = std::move(verifier);
      return;
    }
    stored->passphrase = std::move(verifier);
    saveInto(*opened_, *stored);
    wrap->verifierSalt = stored->passphrase->salt;
    writeWrap(*wrap);
  }
  if (keyLayInClear) tryToSeal(passphrase, *stored, closings);
}

/// A failure leaves the store as it was: it is tried again the next time.
void StoreGate::tryToSeal(const base::SecretText& passphrase, const UnlockConfiguration& configuration,
                          std::uint64_t closings) {
  try {
    {
      const base::Lock lock(mutex_);
      if (kind_.sealable == nullptr || isMoving_) return;
    }
    const WrappingKey wrapping = WrappingKey::make(passphrase.view(), ports_.cost);
    const base::Lock lock(mutex_);
    if (closings == closings_) seal(wrapping, configuration, After::open);
  } catch (const UnlockError& error) {
    base::diagnose("unlock", error.sentence() + " " + error.cause());
  } catch (const std::exception& error) {
    diagnose(error);
  }
}

// Setting and removing it.

void StoreGate::adopt(const base::SecretText& passphrase, const UnlockConfiguration& configuration) {
  told([&] {
    requirePassphrase(configuration);
    bool isSealable = false;
    {
      const base::Lock lock(mutex_);
      isSealable = kind_.sealable != nullptr;
    }
    std::optional<WrappingKey> wrapping;
    if (isSealable) wrapping = WrappingKey::make(passphrase.view(), ports_.cost);
    const base::Lock lock(mutex_);
    settle();
    if (kind_.sealable == nullptr || !wrapping) return saveInto(*usable(), configuration);
    const auto wrap = readWrap();
    if (wrap && !opened_) throw UnlockError(Case::vaultLocked);
    if (!wrap || wrap->keyLayInClear) return seal(*wrapping, configuration, After::asBefore);
    rewrap(*wrap, *wrapping, configuration);
  });
}

void StoreGate::rewrap(StoreWrap wrap, const WrappingKey& wrapping, const UnlockConfiguration& configuration) {
  const StoreWrap before = wrap;
  std::optional<UnlockConfiguration> stored;
  try {
    stored = loadFrom(*opened_);
  } catch (const UnlockError&) {
    // There is nothing to go back to.
  }
  saveInto(*opened_, configuration);
  try {
    describe(wrap, configuration);
    sealStoreKey(wrap, wrapping, *key_);
    writeWrap(wrap);
  } catch (const std::exception&) {
    try {
      writeWrap(before);
      if (stored) saveInto(*opened_, *stored);
    } catch (const std::exception& error) {
      diagnose(error);
    }
    throw;
  }
}

void StoreGate::release(const UnlockConfiguration& configuration) {
  told([&] {
    const base::Lock lock(mutex_);
    settle();
    auto wrap = readWrap();
    if (!wrap) return saveInto(*usable(), configuration);
    if (!opened_ || !key_) throw UnlockError(Case::vaultLocked);
    if (isMoving_) throw UnlockError::storage(std::string(vault::kStoreMoveRunning));
    unwrap(*std::move(wrap), configuration);
  });
}

void StoreGate::unwrap(StoreWrap wrap, const UnlockConfiguration& configuration) {
  try {
    kind_.sealable->writePlainKey(*key_);
    ports_.files.remove(ports_.wrap);
    saveInto(*opened_, configuration);
  } catch (const std::exception&) {
    // Cleared away now, or by the next start.
    isSettled_ = false;
    try {
      wrap.keyLayInClear = true;
      writeWrap(wrap);
      kind_.sealable->removePlainKey();
    } catch (const std::exception& error) {
      diagnose(error);
    }
    throw;
  }
  key_.reset();
}

// Opening and closing.

void StoreGate::open() {
  const base::Lock lock(mutex_);
  settle();
  if (opened_) return;
  if (readWrap()) throw UnlockError(Case::vaultLocked);
  openDoor(kind_.open());
}

void StoreGate::close() {
  const base::Lock lock(mutex_);
  ++closings_;
  shutDoor();
}

void StoreGate::openDoor(Store store) {
  opened_ = std::move(store);
  ports_.door.open(opened_);
}

void StoreGate::shutDoor() {
  opened_.reset();
  key_.reset();
  known_.reset();
  ports_.door.close();
}

bool StoreGate::isSealed() const {
  const base::Lock lock(mutex_);
  if (kind_.sealable == nullptr) return false;
  try {
    return ports_.files.identity(ports_.wrap).has_value();
  } catch (const base::FileError&) {
    return true;  // something lies there, and the store does not open without it
  }
}

UnlockConfiguration StoreGate::fresh() const {
  return told([&] {
    const base::Lock lock(mutex_);
    const auto wrap = readWrap();
    if (!wrap) return UnlockConfiguration{};
    if (!opened_ || !known_) throw UnlockError(Case::vaultLocked);
    UnlockConfiguration configuration;
    configuration.passphrase = known_;
    configuration.requirement = wrap->requirement;
    return configuration;
  });
}

StoreGate::Store StoreGate::beginMove() {
  const base::Lock lock(mutex_);
  if (!opened_) throw UnlockError(Case::vaultLocked);
  isMoving_ = true;
  return opened_;
}

void StoreGate::moved(Kind kind, Store store) {
  const base::Lock lock(mutex_);
  kind_ = std::move(kind);
  key_.reset();
  isSettled_ = false;
  if (opened_) openDoor(std::move(store));
}

void StoreGate::endMove() {
  const base::Lock lock(mutex_);
  isMoving_ = false;
}

void StoreGate::replace(const std::function<void()>& replace) {
  const base::Lock lock(mutex_);
  ++closings_;
  shutDoor();
  isSettled_ = false;
  try {
    replace();
  } catch (const StoreLost& error) {
    lost_ = error.sentence();
    throw;
  }
  firstRun_ = false;
  madeHere_ = false;
}

// The configuration.

UnlockConfiguration StoreGate::load() {
  return told([&] {
    const base::Lock lock(mutex_);
    settle();
    const auto wrap = readWrap();
    if (wrap && !opened_) return configurationOf(*wrap);
    if (wrap) firstRun_ = false;
    const Store store = usable();
    return loadFrom(*store);
  });
}

void StoreGate::save(const UnlockConfiguration& configuration) {
  told([&] {
    const base::Lock lock(mutex_);
    settle();
    const auto before = readWrap();
    if (!before) return saveInto(*usable(), configuration);
    StoreWrap wrap = *before;
    if (!opened_) {
      wrap.failedAttempts = configuration.failedAttempts;
      wrap.lastFailure = configuration.lastFailure;
      if (wrap != *before) writeWrap(wrap);
      return;
    }
    requirePassphrase(configuration);
    describe(wrap, configuration);
    StoreWrap first = wrap;
    if (strictness(before->requirement) < strictness(wrap.requirement)) first.requirement = before->requirement;
    first.followsSession = wrap.followsSession && before->followsSession;
    if (first != *before) writeWrap(first);
    saveInto(*opened_, configuration);
    if (wrap != first) writeWrap(wrap);
  });
}

StoreGate::Store StoreGate::usable() {
  return opened_ ? opened_ : kind_.open();
}

UnlockConfiguration StoreGate::loadFrom(vault::SecretStore& store) {
  const auto settings = vault::sealedSettingsIn(store);
  SealedUnlockConfigurationStore stored(*settings, firstRun_ ? FirstRun::yes : FirstRun::no);
  UnlockConfiguration configuration = stored.load();
  // Saved at once: from now on a missing setting was taken away by somebody.
  const bool isFirst = stored.firstRun();
  if (isFirst) saveInto(store, configuration);
  firstRun_ = false;
  madeHere_ = madeHere_ || isFirst;
  return configuration;
}

void StoreGate::saveInto(vault::SecretStore& store, const UnlockConfiguration& configuration) {
  // The store that the items leave is not read again.
  if (isMoving_) throw UnlockError::storage(std::string(vault::kStoreMoveRunning));
  // A vault that is yet to be made takes this key for its own.
  if (firstRun_ && !vault::readVaultKey(store)) vault::makeVaultKey(store);
  const auto settings = vault::sealedSettingsIn(store);
  SealedUnlockConfigurationStore(*settings, FirstRun::no).save(configuration);
  firstRun_ = false;
  if (configuration.passphrase) madeHere_ = false;
}

bool StoreGate::isFirstRun() const {
  const base::Lock lock(mutex_);
  return firstRun_ || madeHere_;
}

}  // namespace sorvane::unlock
