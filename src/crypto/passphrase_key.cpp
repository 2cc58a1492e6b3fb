#include "crypto/passphrase_key.h"

#include <sodium.h>

#include <array>

#include "base/unicode.h"

namespace sorvane::crypto {
namespace {

static_assert(kPassphraseSaltBytes == crypto_pwhash_SALTBYTES);

std::string sentenceOf(PassphraseKeyError::Case kind) {
  using Case = PassphraseKeyError::Case;
  switch (kind) {
    case Case::invalidLength:
      return "The stored costs of the passphrase are outside what sorvane computes, so it was not checked.";
    case Case::invalidPassword:
      return "A passphrase is at least one character of text. Enter it again.";
    case Case::invalidSalt:
      return "The stored salt of the passphrase has the wrong length, so it was not checked.";
    case Case::primitiveFailed:
      return "There is not enough memory to check the passphrase. Close other programs and try again.";
  }
  return {};
}

/// The derived bytes on their way into the key's own memory.
struct Output {
  std::array<std::uint8_t, SymmetricKey::kBytes> bytes{};
  ~Output() { sodium_memzero(bytes.data(), bytes.size()); }
};

}  // namespace

PassphraseKeyError::PassphraseKeyError(Case kind) : Error(sentenceOf(kind)), kind_(kind) {}

SymmetricKey passphraseKeyOfBytes(std::span<const std::uint8_t> password, std::span<const std::uint8_t> salt,
                                  const PassphraseCost& cost) {
  using Case = PassphraseKeyError::Case;
  if (!isWithinBounds(cost)) throw PassphraseKeyError(Case::invalidLength);
  if (password.empty()) throw PassphraseKeyError(Case::invalidPassword);
  if (salt.size() != kPassphraseSaltBytes) throw PassphraseKeyError(Case::invalidSalt);
  initialise();
  Output output;
  const int failed = crypto_pwhash(output.bytes.data(), output.bytes.size(),
                                   reinterpret_cast<const char*>(password.data()), password.size(), salt.data(),
                                   cost.iterations, std::size_t{cost.memoryKiB} * 1024, crypto_pwhash_ALG_ARGON2ID13);
  if (failed != 0) throw PassphraseKeyError(Case::primitiveFailed);
  return *SymmetricKey::fromBytes(output.bytes);
}

SymmetricKey passphraseKey(std::string_view passphrase, std::span<const std::uint8_t> salt,
                           const PassphraseCost& cost) {
  const std::optional<base::SecretText> normal = base::nfcOfSecret(passphrase);
  if (!normal) throw PassphraseKeyError(PassphraseKeyError::Case::invalidPassword);
  return passphraseKeyOfBytes(normal->bytes(), salt, cost);
}

}  // namespace sorvane::crypto
