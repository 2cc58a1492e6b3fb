#include "crypto/aead.h"

#include <openssl/evp.h>

#include <climits>
#include <memory>

#include "base/ids.h"

namespace sorvane::crypto {
namespace {

using Context = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

Context newContext() {
  Context context(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
  if (!context) throw CryptoFailure("There is no memory for a cipher.");
  return context;
}

void require(int result) {
  if (result != 1) throw CryptoFailure("The cipher could not be used.");
}

int sizeForCipher(std::size_t size) {
  if (size > INT_MAX) throw CryptoFailure("The data is too large for one sealed box.");
  return static_cast<int>(size);
}

base::Bytes sealWith(const EVP_CIPHER* cipher, const SymmetricKey& key, std::span<const std::uint8_t> plain,
                     std::string_view associated) {
  const Context context = newContext();
  base::Bytes box(kNonceBytes + plain.size() + kTagBytes);
  base::fillRandom({box.data(), kNonceBytes});
  const auto aad = base::bytesOf(associated);
  int size = 0;
  require(EVP_EncryptInit_ex(context.get(), cipher, nullptr, key.bytes().data(), box.data()));
  require(EVP_EncryptUpdate(context.get(), nullptr, &size, aad.data(), sizeForCipher(aad.size())));
  require(EVP_EncryptUpdate(context.get(), box.data() + kNonceBytes, &size, plain.data(), sizeForCipher(plain.size())));
  require(EVP_EncryptFinal_ex(context.get(), box.data() + kNonceBytes + size, &size));
  require(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(kTagBytes),
                              box.data() + kNonceBytes + plain.size()));
  return box;
}

std::optional<base::SecretText> openWith(const EVP_CIPHER* cipher, const SymmetricKey& key,
                                         std::span<const std::uint8_t> box, std::string_view associated) {
  if (box.size() < kNonceBytes + kTagBytes) return std::nullopt;
  const Context context = newContext();
  const auto sealed = box.subspan(kNonceBytes, box.size() - kNonceBytes - kTagBytes);
  const auto tag = box.last(kTagBytes);
  base::SecretText plain;
  plain.resize(sealed.size());
  auto* out = reinterpret_cast<unsigned char*>(plain.data());
  const auto aad = base::bytesOf(associated);
  int size = 0;
  require(EVP_DecryptInit_ex(context.get(), cipher, nullptr, key.bytes().data(), box.data()));
  require(EVP_DecryptUpdate(context.get(), nullptr, &size, aad.data(), sizeForCipher(aad.size())));
  require(EVP_DecryptUpdate(context.get(), out, &size, sealed.data(), sizeForCipher(sealed.size())));
  require(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(kTagBytes),
                              const_cast<std::uint8_t*>(tag.data())));
  unsigned char none[16];
  if (EVP_DecryptFinal_ex(context.get(), none, &size) != 1) return std::nullopt;
  return plain;
}

}  // namespace

base::Bytes seal(const SymmetricKey& key, std::span<const std::uint8_t> plain, std::string_view associated) {
  return sealWith(EVP_aes_256_gcm(), key, plain, associated);
}

std::optional<base::SecretText> open(const SymmetricKey& key, std::span<const std::uint8_t> box,
                                     std::string_view associated) {
  return openWith(EVP_aes_256_gcm(), key, box, associated);
}

base::Bytes sealChaCha(const SymmetricKey& key, std::span<const std::uint8_t> plain, std::string_view associated) {
  return sealWith(EVP_chacha20_poly1305(), key, plain, associated);
}

std::optional<base::SecretText> openChaCha(const SymmetricKey& key, std::span<const std::uint8_t> box,
                                           std::string_view associated) {
  return openWith(EVP_chacha20_poly1305(), key, box, associated);
}

}  // namespace sorvane::crypto
