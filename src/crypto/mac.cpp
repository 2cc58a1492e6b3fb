#include "crypto/mac.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>

#include "base/codec.h"

namespace sorvane::crypto {

std::string hmacSha256Hex(const SymmetricKey& key, std::span<const std::uint8_t> bytes) {
  std::array<std::uint8_t, 32> digest{};
  unsigned int size = 0;
  if (HMAC(EVP_sha256(), key.bytes().data(), static_cast<int>(key.bytes().size()), bytes.data(), bytes.size(),
           digest.data(), &size) == nullptr ||
      size != digest.size()) {
    throw CryptoFailure("The text could not be authenticated. Nothing was shared.");
  }
  return base::hexLower(digest);
}

}  // namespace sorvane::crypto
