#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace sorvane::proxy {

/// The first byte of a JSON string's inside that is no plain character: a quote, a backslash or a control character;
/// `end` when there is none. Eight bytes at a time, since images and documents are most of a large body.
inline const char* endOfPlain(const char* at, const char* end) {
  if constexpr (std::endian::native == std::endian::little) {
    constexpr std::uint64_t ones = 0x0101010101010101, highs = 0x8080808080808080;
    while (end - at >= 8) {
      std::uint64_t word = 0;
      std::memcpy(&word, at, sizeof word);
      const std::uint64_t quote = word ^ (ones * '"'), backslash = word ^ (ones * '\\');
      const std::uint64_t found =
          (((quote - ones) & ~quote) | ((backslash - ones) & ~backslash) | ((word - ones * 0x20) & ~word)) & highs;
      // Borrows reach only bytes behind a real one, so that the lowest mark is always right.
      if (found != 0) return at + std::countr_zero(found) / 8;
      at += 8;
    }
  }
  while (at != end && *at != '"' && *at != '\\' && static_cast<unsigned char>(*at) >= 0x20) ++at;
  return at;
}

}  // namespace sorvane::proxy
