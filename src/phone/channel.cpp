#include "phone/channel.h"

#include <array>
#include <string>

#include "crypto/aead.h"
#include "crypto/derivation.h"

namespace sorvane::phone {
namespace {

constexpr std::string_view kSalt = "sorvane-channel-v2", kInfo = "sorvane-channel";

std::string associatedWith(std::string_view label, Side from) {
  return "sorvane-approver-v4|" + std::string(label) + (from == Side::mac ? "|mac>phone" : "|phone>mac");
}

}  // namespace

std::optional<Channel> Channel::of(Side side, const crypto::AgreementKey& own, const PublicKey& peer) {
  const auto shared = own.agree(peer);
  if (!shared) return std::nullopt;
  struct Derived {
    std::array<std::uint8_t, crypto::SymmetricKey::kBytes> bytes{};
    ~Derived() { base::wipe(bytes.data(), bytes.size()); }
  } derived;
  crypto::hkdfSha256(shared->bytes(), base::bytesOf(kSalt), base::bytesOf(kInfo), derived.bytes);
  return Channel(side, *crypto::SymmetricKey::fromBytes(derived.bytes));
}

base::Bytes Channel::sealText(std::string_view json, std::string_view label, Side from) const {
  return crypto::sealChaCha(key_, base::bytesOf(json), associatedWith(label, from));
}

std::optional<base::SecretText> Channel::openText(std::span<const std::uint8_t> box, std::string_view label,
                                                  Side from) const {
  return crypto::openChaCha(key_, box, associatedWith(label, from));
}

}  // namespace sorvane::phone
