#include "crypto/agreement.h"

#include <sodium.h>

namespace sorvane::crypto {

static_assert(AgreementKey::kBytes == crypto_scalarmult_SCALARBYTES);

AgreementKey::AgreementKey(SymmetricKey secret) : secret_(std::move(secret)) {
  if (crypto_scalarmult_base(publicKey_.data(), secret_.bytes().data()) != 0) {
    throw CryptoFailure("A public key could not be computed. Nothing was shared. Try again.");
  }
}

AgreementKey AgreementKey::random() {
  return AgreementKey(SymmetricKey::random());
}

std::optional<AgreementKey> AgreementKey::fromBytes(std::span<const std::uint8_t> bytes) {
  auto secret = SymmetricKey::fromBytes(bytes);
  if (!secret) return std::nullopt;
  return AgreementKey(std::move(*secret));
}

AgreementKey AgreementKey::clone() const {
  return AgreementKey(secret_.clone());
}

std::optional<SymmetricKey> AgreementKey::agree(const AgreementPublicKey& peer) const {
  struct Shared {
    std::array<std::uint8_t, crypto_scalarmult_BYTES> bytes{};
    ~Shared() { sodium_memzero(bytes.data(), bytes.size()); }
  } shared;
  // It fails for an all-zero result and for nothing else.
  if (crypto_scalarmult(shared.bytes.data(), secret_.bytes().data(), peer.data()) != 0) return std::nullopt;
  return SymmetricKey::fromBytes(shared.bytes);
}

}  // namespace sorvane::crypto
