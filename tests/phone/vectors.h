#pragma once

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string>

#include "base/codec.h"
#include "crypto/agreement.h"
#include "phone/channel.h"
#include "support/corpus.h"

namespace sorvane::phone {

/// The keys, boxes and recorded links of tests/corpora/phone, which another program made.
inline const nlohmann::json& linkVectors() {
  static const auto vectors = nlohmann::json::parse(test::textOfFile(test::corpus("phone/link.json")));
  return vectors;
}

inline base::Bytes hexOf(const nlohmann::json& text) {
  return base::parseHex(text.get<std::string>()).value();
}
inline base::Bytes base64Of(const nlohmann::json& text) {
  return base::parseBase64(text.get<std::string>()).value();
}
template <std::size_t size>
std::array<std::uint8_t, size> arrayOf(const base::Bytes& bytes) {
  std::array<std::uint8_t, size> out{};
  if (bytes.size() != size) throw std::runtime_error("a vector of another size");
  std::copy(bytes.begin(), bytes.end(), out.begin());
  return out;
}

inline PublicKey publicKeyOf(const char* who) {
  return arrayOf<32>(hexOf(linkVectors()[who]["public"]));
}
inline crypto::AgreementKey keyOf(const char* who) {
  return crypto::AgreementKey::fromBytes(hexOf(linkVectors()[who]["secret"])).value();
}
/// The recorded link as one side sees it.
inline Channel recordedChannel(Side side) {
  const bool isMac = side == Side::mac;
  return Channel::of(side, keyOf(isMac ? "mac" : "phone"), publicKeyOf(isMac ? "phone" : "mac")).value();
}
inline Side sideOf(const nlohmann::json& from) {
  return from == "mac" ? Side::mac : Side::phone;
}

}  // namespace sorvane::phone
