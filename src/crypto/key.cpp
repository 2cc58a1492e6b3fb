#include "crypto/key.h"

#include <sodium.h>

#include <algorithm>

#include "base/ids.h"

namespace sorvane::crypto {
namespace {

void sodium() {
  if (sodium_init() < 0) throw CryptoFailure("The cryptography library could not be started.");
}

}  // namespace

Initialised initialise() {
  sodium();
  std::uint8_t probe[SymmetricKey::kBytes];
  const bool locked = sodium_mlock(probe, sizeof probe) == 0;
  if (locked) sodium_munlock(probe, sizeof probe);
  return {locked};
}

void SymmetricKey::Free::operator()(std::uint8_t* memory) const noexcept {
  sodium_free(memory);
}

SymmetricKey::SymmetricKey() {
  sodium();
  memory_.reset(static_cast<std::uint8_t*>(sodium_malloc(kBytes)));
  if (!memory_) throw CryptoFailure("There is no memory for a key.");
}

SymmetricKey SymmetricKey::random() {
  SymmetricKey key;
  base::fillRandom({key.memory_.get(), kBytes});
  return key;
}

std::optional<SymmetricKey> SymmetricKey::fromBytes(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != kBytes) return std::nullopt;
  SymmetricKey key;
  std::copy(bytes.begin(), bytes.end(), key.memory_.get());
  return key;
}

SymmetricKey SymmetricKey::clone() const {
  return *fromBytes(bytes());
}

}  // namespace sorvane::crypto
