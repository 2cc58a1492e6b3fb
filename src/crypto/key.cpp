#include "crypto/key.h"

#include <openssl/crypto.h>
#include <sodium.h>

#include <algorithm>
#include <vector>

#include "base/ids.h"

namespace sorvane::crypto {
namespace {

// Sixteen keys at once, each in a page of its own: more than any one operation holds.
constexpr std::size_t kProbeBytes = 64 * 1024;

void sodium() {
  if (sodium_init() < 0) throw CryptoFailure("The cryptography library could not be started.");
}

}  // namespace

Initialised initialise() {
  // What the file names is loaded as code, and with some builds of the library it lies where every program may write.
  if (OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) != 1) {
    throw CryptoFailure("The cryptography library could not be started.");
  }
  sodium();
  std::vector<std::uint8_t> probe(kProbeBytes);
  const bool locked = sodium_mlock(probe.data(), probe.size()) == 0;
  if (locked) sodium_munlock(probe.data(), probe.size());
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
