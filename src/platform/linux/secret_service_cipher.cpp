#include "platform/linux/secret_service_cipher.h"

#include <openssl/bn.h>
#include <openssl/evp.h>

#include <climits>
#include <memory>

#include "base/ids.h"
#include "crypto/derivation.h"

namespace sorvane::platform {

namespace {

constexpr std::size_t kBlockBytes = 16;
constexpr unsigned long kGenerator = 2;

template <auto Free>
struct FreeWith {
  template <typename T>
  void operator()(T* object) const noexcept {
    Free(object);
  }
};
using Number = std::unique_ptr<BIGNUM, FreeWith<BN_clear_free>>;
using Cipher = std::unique_ptr<EVP_CIPHER_CTX, FreeWith<EVP_CIPHER_CTX_free>>;

void require(bool worked) {
  if (!worked) throw crypto::CryptoFailure("The session with the Secret Service could not be encrypted.");
}

template <typename Owner>
Owner owned(typename Owner::pointer object) {
  require(object != nullptr);
  return Owner(object);
}

Number numberOf(std::span<const std::uint8_t> bytes) {
  return owned<Number>(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
}

Number prime() {
  return owned<Number>(BN_get_rfc2409_prime_1024(nullptr));
}

/// base ^ exponent modulo the prime, without telling the exponent by its time.
void power(std::uint8_t* out, const BIGNUM* base, std::span<const std::uint8_t> exponent) {
  const auto modulus = prime();
  const auto secret = numberOf(exponent);
  BN_set_flags(secret.get(), BN_FLG_CONSTTIME);
  const std::unique_ptr<BN_CTX, FreeWith<BN_CTX_free>> context(BN_CTX_secure_new());
  const auto result = owned<Number>(BN_secure_new());
  require(context &&
          BN_mod_exp_mont_consttime(result.get(), base, secret.get(), modulus.get(), context.get(), nullptr));
  require(BN_bn2binpad(result.get(), out, static_cast<int>(SecretServiceCipher::kGroupBytes)) > 0);
}

const unsigned char* bytes(const base::SecretText& text) {
  return reinterpret_cast<const unsigned char*>(text.view().data());
}

}  // namespace

SecretServiceCipher::SecretServiceCipher() : publicKey_(kGroupBytes) {
  privateKey_.resize(kGroupBytes);
  base::fillRandom({reinterpret_cast<std::uint8_t*>(privateKey_.data()), privateKey_.size()});
  const auto generator = owned<Number>(BN_new());
  require(BN_set_word(generator.get(), kGenerator) == 1);
  power(publicKey_.data(), generator.get(), privateKey_.bytes());
}

SecretServiceCipher::Agreement SecretServiceCipher::agree(std::span<const std::uint8_t> servicePublicKey) {
  if (servicePublicKey.empty() || servicePublicKey.size() > kGroupBytes) return Agreement::refused;
  const auto theirs = numberOf(servicePublicKey);
  const auto limit = prime();
  require(BN_sub_word(limit.get(), 1) == 1);
  // 0, 1 and the prime less one give a shared number that everybody knows.
  if (BN_is_zero(theirs.get()) || BN_is_one(theirs.get()) || BN_cmp(theirs.get(), limit.get()) >= 0) {
    return Agreement::refused;
  }
  base::SecretText shared;
  shared.resize(kGroupBytes);
  power(reinterpret_cast<std::uint8_t*>(shared.data()), theirs.get(), privateKey_.bytes());
  if (shared.view().front() == '\0') return Agreement::repeat;
  key_.resize(kKeyBytes);
  crypto::hkdfSha256(shared.bytes(), {}, {}, {reinterpret_cast<std::uint8_t*>(key_.data()), key_.size()});
  return Agreement::agreed;
}

SecretServiceCipher::Sealed SecretServiceCipher::encrypt(const base::SecretText& value) const {
  Sealed sealed;
  sealed.parameters.resize(kBlockBytes);
  base::fillRandom(sealed.parameters);
  sealed.value.resize((value.size() / kBlockBytes + 1) * kBlockBytes);
  const auto cipher = owned<Cipher>(EVP_CIPHER_CTX_new());
  int size = 0, rest = 0;
  require(value.size() < INT_MAX &&
          EVP_EncryptInit_ex(cipher.get(), EVP_aes_128_cbc(), nullptr, bytes(key_), sealed.parameters.data()) == 1);
  require(EVP_EncryptUpdate(cipher.get(), sealed.value.data(), &size, bytes(value), static_cast<int>(value.size())) ==
          1);
  require(EVP_EncryptFinal_ex(cipher.get(), sealed.value.data() + size, &rest) == 1);
  return sealed;
}

std::optional<base::SecretText> SecretServiceCipher::decrypt(std::span<const std::uint8_t> parameters,
                                                             std::span<const std::uint8_t> value) const {
  if (parameters.size() != kBlockBytes || value.empty() || value.size() > INT_MAX - kBlockBytes) return std::nullopt;
  base::SecretText plain;
  plain.resize(value.size() + kBlockBytes);
  auto* out = reinterpret_cast<unsigned char*>(plain.data());
  const auto cipher = owned<Cipher>(EVP_CIPHER_CTX_new());
  int size = 0, rest = 0;
  require(EVP_DecryptInit_ex(cipher.get(), EVP_aes_128_cbc(), nullptr, bytes(key_), parameters.data()) == 1);
  require(EVP_DecryptUpdate(cipher.get(), out, &size, value.data(), static_cast<int>(value.size())) == 1);
  if (EVP_DecryptFinal_ex(cipher.get(), out + size, &rest) != 1) return std::nullopt;
  plain.truncate(static_cast<std::size_t>(size + rest));
  return plain;
}

}  // namespace sorvane::platform
