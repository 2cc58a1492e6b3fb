#include "base/ids.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "base/codec.h"
#include "base/error.h"

namespace sorvane::base {

void fillRandom(std::span<std::uint8_t> bytes) {
  // getentropy gives at most 256 bytes a call.
  constexpr std::size_t kMostPerCall = 256;
  while (!bytes.empty()) {
    const std::size_t size = std::min(bytes.size(), kMostPerCall);
    if (::getentropy(bytes.data(), size) != 0) throw Error("The system's random generator is not available.");
    bytes = bytes.subspan(size);
  }
}

std::string randomHexId() {
  std::array<std::uint8_t, 16> bytes{};
  fillRandom(bytes);
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // RFC 9562 5.4: version 4 …
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // … and its variant
  return hexLower(bytes);
}

std::string randomUuid() {
  std::string text = randomHexId();
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c; });
  for (const std::size_t at : {8U, 13U, 18U, 23U}) text.insert(at, 1, '-');
  return text;
}

std::string randomHex(std::size_t digits) {
  Bytes bytes(digits / 2);
  fillRandom(bytes);
  return hexLower(bytes);
}

}  // namespace sorvane::base
