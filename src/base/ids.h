#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace sorvane::base {

/// Fills `bytes` from the system's random generator. Throws Error when the system has none. Safe from any thread.
void fillRandom(std::span<std::uint8_t> bytes);

/// A fresh random (version 4) UUID in its canonical 36-character form, upper-case hexadecimal with hyphens.
std::string randomUuid();

/// The same without hyphens and in lower case: 32 hexadecimal digits.
std::string randomHexId();

/// `digits` random lower-case hexadecimal digits (an even number).
std::string randomHex(std::size_t digits);

}  // namespace sorvane::base
