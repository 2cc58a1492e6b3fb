#include "crypto/presence_key.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/param_build.h>

#include <memory>

namespace sorvane::crypto {
namespace {

template <auto free>
struct Freed {
  template <typename Handle>
  void operator()(Handle* handle) const noexcept {
    free(handle);
  }
};
using Number = std::unique_ptr<BIGNUM, Freed<BN_clear_free>>;
using NumberContext = std::unique_ptr<BN_CTX, Freed<BN_CTX_free>>;
using Group = std::unique_ptr<EC_GROUP, Freed<EC_GROUP_free>>;
using Point = std::unique_ptr<EC_POINT, Freed<EC_POINT_free>>;
using Builder = std::unique_ptr<OSSL_PARAM_BLD, Freed<OSSL_PARAM_BLD_free>>;
using Parameters = std::unique_ptr<OSSL_PARAM, Freed<OSSL_PARAM_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Freed<EVP_PKEY_CTX_free>>;
using Key = std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, Freed<EVP_MD_CTX_free>>;

void require(bool done) {
  if (!done) throw CryptoFailure("The presence key could not be used. Nothing was signed or shared. Try again.");
}

/// In the library's secure heap where there is one; wiped when it goes either way.
Number secretNumber(std::span<const std::uint8_t> bytes) {
  Number number(BN_secure_new());
  require(number && BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), number.get()) != nullptr);
  BN_set_flags(number.get(), BN_FLG_CONSTTIME);
  return number;
}

/// nullopt when the scalar is out of range.
std::optional<PresencePublicKey> publicKeyOf(std::span<const std::uint8_t> scalar) {
  const Group group(EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1));
  require(group != nullptr);
  const Number number = secretNumber(scalar);
  if (BN_is_zero(number.get()) || BN_cmp(number.get(), EC_GROUP_get0_order(group.get())) >= 0) return std::nullopt;
  const Point point(EC_POINT_new(group.get()));
  const NumberContext context(BN_CTX_secure_new());
  require(point && context);
  require(EC_POINT_mul(group.get(), point.get(), number.get(), nullptr, nullptr, context.get()) == 1);
  PresencePublicKey key{};
  require(EC_POINT_point2oct(group.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, key.data(), key.size(),
                             context.get()) == key.size());
  return key;
}

/// Null when the library refuses the key. `scalar` may be null: then it only verifies.
Key keyOf(const PresencePublicKey& publicKey, const BIGNUM* scalar) {
  const Builder builder(OSSL_PARAM_BLD_new());
  if (!builder ||
      OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, SN_X9_62_prime256v1, 0) != 1 ||
      OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, publicKey.data(), publicKey.size()) !=
          1 ||
      (scalar && OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, scalar) != 1)) {
    return nullptr;
  }
  const Parameters parameters(OSSL_PARAM_BLD_to_param(builder.get()));
  const KeyContext context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
  EVP_PKEY* key = nullptr;
  if (!parameters || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &key, scalar ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY, parameters.get()) != 1) {
    return nullptr;
  }
  return Key(key);
}

}  // namespace

PresenceKey::PresenceKey(SymmetricKey scalar, const PresencePublicKey& publicKey)
    : scalar_(std::move(scalar)), publicKey_(publicKey) {}

PresenceKey PresenceKey::random() {
  // All but one in four thousand million of the 32-byte numbers are below the order.
  while (true) {
    if (auto key = fromBytes(SymmetricKey::random().bytes())) return std::move(*key);
  }
}

std::optional<PresenceKey> PresenceKey::fromBytes(std::span<const std::uint8_t> scalar) {
  auto kept = SymmetricKey::fromBytes(scalar);
  if (!kept) return std::nullopt;
  const auto publicKey = publicKeyOf(kept->bytes());
  if (!publicKey) return std::nullopt;
  return PresenceKey(std::move(*kept), *publicKey);
}

PresenceKey PresenceKey::clone() const {
  return PresenceKey(scalar_.clone(), publicKey_);
}

base::Bytes PresenceKey::sign(std::span<const std::uint8_t> message) const {
  const Number scalar = secretNumber(scalar_.bytes());
  const Key key = keyOf(publicKey_, scalar.get());
  const DigestContext context(EVP_MD_CTX_new());
  require(key && context);
  require(EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) == 1);
  std::size_t size = 0;
  require(EVP_DigestSign(context.get(), nullptr, &size, message.data(), message.size()) == 1);
  base::Bytes signature(size);
  require(EVP_DigestSign(context.get(), signature.data(), &size, message.data(), message.size()) == 1);
  signature.resize(size);
  return signature;
}

bool isPresenceKey(const PresencePublicKey& key) noexcept {
  // The library also takes other forms of a point, and tells them by the first byte.
  return key[0] == 0x04 && keyOf(key, nullptr) != nullptr;
}

bool verifyPresence(const PresencePublicKey& key, std::span<const std::uint8_t> message,
                    std::span<const std::uint8_t> signature) noexcept {
  if (key[0] != 0x04 || signature.empty()) return false;
  const Key publicKey = keyOf(key, nullptr);
  const DigestContext context(EVP_MD_CTX_new());
  return publicKey && context &&
         EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, publicKey.get()) == 1 &&
         EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(), message.size()) == 1;
}

}  // namespace sorvane::crypto
