#include "unlock/passphrase_verifier.h"

#include "base/ids.h"

namespace sorvane::unlock {

PassphraseVerifier PassphraseVerifier::make(std::string_view passphrase, const crypto::PassphraseCost& cost) {
  PassphraseVerifier verifier{.salt = base::Bytes(crypto::kPassphraseSaltBytes),
                              .hash = {},
                              .memoryKiB = cost.memoryKiB,
                              .iterations = cost.iterations};
  base::fillRandom(verifier.salt);
  const crypto::SymmetricKey key = crypto::passphraseKey(passphrase, verifier.salt, cost);
  verifier.hash.assign(key.bytes().begin(), key.bytes().end());
  return verifier;
}

bool PassphraseVerifier::check(std::string_view passphrase) const {
  const crypto::SymmetricKey key = crypto::passphraseKey(passphrase, salt, {memoryKiB, iterations});
  return base::sameInConstantTime(base::textOf(key.bytes()), base::textOf(hash));
}

bool PassphraseVerifier::isComputable() const {
  return salt.size() == crypto::kPassphraseSaltBytes && hash.size() == kHashBytes &&
         crypto::isWithinBounds({memoryKiB, iterations});
}

}  // namespace sorvane::unlock
