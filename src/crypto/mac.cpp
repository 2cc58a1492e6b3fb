#include "crypto/mac.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "base/codec.h"

namespace sorvane::crypto {

Sha256Digest hmacSha256(std::span<const std::uint8_t> key, std::span<const std::uint8_t> bytes) {
  Sha256Digest digest{};
  unsigned int size = 0;
  // A null key would mean the one of an earlier call.
  static constexpr std::uint8_t kNothing = 0;
  if (HMAC(EVP_sha256(), key.empty() ? &kNothing : key.data(), static_cast<int>(key.size()), bytes.data(), bytes.size(),
           digest.data(), &size) == nullptr ||
      size != digest.size()) {
    throw CryptoFailure("The text could not be authenticated. Nothing was shared.");
  }
  return digest;
}

std::string hmacSha256Hex(const SymmetricKey& key, std::span<const std::uint8_t> bytes) {
  return base::hexLower(hmacSha256(key.bytes(), bytes));
}

}  // namespace sorvane::crypto
