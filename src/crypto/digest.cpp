// The one-shot SHA256() looks its algorithm up under a lock at every call, which costs ten times what a short text's
// digest does and keeps threads waiting on one another; the functions below it are marked deprecated and do not.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "crypto/digest.h"

#include <openssl/sha.h>

#include "base/codec.h"
#include "base/secret_text.h"

namespace sorvane::crypto {

struct Sha256::State {
  SHA256_CTX context{};
};

Sha256::Sha256() : state_(std::make_unique<State>()) {
  SHA256_Init(&state_->context);
}

Sha256::~Sha256() {
  base::wipe(state_.get(), sizeof(State));
}

void Sha256::update(std::span<const std::uint8_t> piece) {
  SHA256_Update(&state_->context, piece.data(), piece.size());
}

Sha256Digest Sha256::finish() {
  Sha256Digest digest{};
  SHA256_Final(digest.data(), &state_->context);
  return digest;
}

Sha256Digest sha256(std::span<const std::uint8_t> bytes) {
  Sha256Digest digest{};
  SHA256_CTX context;
  SHA256_Init(&context);
  SHA256_Update(&context, bytes.data(), bytes.size());
  SHA256_Final(digest.data(), &context);
  // Its buffer holds the text's end, which may be a token's.
  base::wipe(&context, sizeof context);
  return digest;
}

std::string sha256Hex(std::span<const std::uint8_t> bytes) {
  return base::hexLower(sha256(bytes));
}

}  // namespace sorvane::crypto
