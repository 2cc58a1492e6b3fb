#include "crypto/digest.h"

#include <openssl/sha.h>

#include "base/codec.h"

namespace sorvane::crypto {

Sha256Digest sha256(std::span<const std::uint8_t> bytes) {
  Sha256Digest digest{};
  SHA256(bytes.data(), bytes.size(), digest.data());
  return digest;
}

std::string sha256Hex(std::span<const std::uint8_t> bytes) {
  return base::hexLower(sha256(bytes));
}

}  // namespace sorvane::crypto
