#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace sorvane::crypto {

using Sha256Digest = std::array<std::uint8_t, 32>;

/// Sha256 digests a text that comes in pieces (SHA-256, FIPS 180-4). What it holds of the text is wiped.
class Sha256 {
 public:
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;
  void update(std::span<const std::uint8_t> piece);
  /// The digest of all pieces; nothing may follow.
  Sha256Digest finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// SHA-256 of one text.
Sha256Digest sha256(std::span<const std::uint8_t> bytes);
/// The same as 64 lower-case hexadecimal digits.
std::string sha256Hex(std::span<const std::uint8_t> bytes);

}  // namespace sorvane::crypto
