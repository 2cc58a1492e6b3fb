#include "crypto/derivation.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <memory>

namespace sorvane::crypto {
namespace {

/// OpenSSL takes its input as mutable memory and does not write to it; an empty input must still point somewhere.
OSSL_PARAM octets(const char* name, std::span<const std::uint8_t> bytes) {
  static std::uint8_t nothing = 0;
  auto* data = bytes.empty() ? &nothing : const_cast<std::uint8_t*>(bytes.data());
  return OSSL_PARAM_construct_octet_string(name, data, bytes.size());
}

[[noreturn]] void fail() {
  throw CryptoFailure("A key could not be derived. Nothing was opened or shared. Try again.");
}

}  // namespace

void hkdfSha256(std::span<const std::uint8_t> inputKey, std::span<const std::uint8_t> salt,
                std::span<const std::uint8_t> info, std::span<std::uint8_t> out) {
  const std::unique_ptr<EVP_KDF, decltype(&EVP_KDF_free)> kdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr), &EVP_KDF_free);
  if (!kdf) fail();
  const std::unique_ptr<EVP_KDF_CTX, decltype(&EVP_KDF_CTX_free)> context(EVP_KDF_CTX_new(kdf.get()),
                                                                          &EVP_KDF_CTX_free);
  char digest[] = "SHA256";
  const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
                                   octets(OSSL_KDF_PARAM_KEY, inputKey), octets(OSSL_KDF_PARAM_SALT, salt),
                                   octets(OSSL_KDF_PARAM_INFO, info), OSSL_PARAM_construct_end()};
  if (!context || EVP_KDF_derive(context.get(), out.data(), out.size(), parameters) != 1) fail();
}

void pbkdf2Sha256(std::span<const std::uint8_t> password, std::span<const std::uint8_t> salt, std::int64_t rounds,
                  std::span<std::uint8_t> out) {
  if (rounds < 1 || rounds > kMaxPbkdf2Rounds) fail();
  if (PKCS5_PBKDF2_HMAC(reinterpret_cast<const char*>(password.data()), static_cast<int>(password.size()), salt.data(),
                        static_cast<int>(salt.size()), static_cast<int>(rounds), EVP_sha256(),
                        static_cast<int>(out.size()), out.data()) != 1) {
    fail();
  }
}

}  // namespace sorvane::crypto
