#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "base/error.h"
#include "base/secret_text.h"

namespace sorvane::crypto {

/// A primitive or the library below it failed; never a wrong key or altered bytes, which are values.
class CryptoFailure : public base::Error {
 public:
  using Error::Error;
};

/// Prepares libsodium, and OpenSSL without its configuration file; called before anything else of either, any number of
/// times. `memoryIsLocked` is false when the
/// system refuses to keep the pages of a busy application's keys out of swap, which the application says once at start.
struct Initialised {
  bool memoryIsLocked;
};
Initialised initialise();

/// SymmetricKey is a 256-bit key in guarded memory of libsodium, wiped when it goes. Move-only.
class SymmetricKey {
 public:
  static constexpr std::size_t kBytes = 32;

  static SymmetricKey random();
  /// nullopt unless there are exactly 32 bytes. The caller wipes its own copy.
  static std::optional<SymmetricKey> fromBytes(std::span<const std::uint8_t> bytes);

  std::span<const std::uint8_t, kBytes> bytes() const {
    return std::span<const std::uint8_t, kBytes>{memory_.get(), kBytes};
  }
  SymmetricKey clone() const;

 private:
  struct Free {
    void operator()(std::uint8_t* memory) const noexcept;
  };
  SymmetricKey();
  std::unique_ptr<std::uint8_t, Free> memory_;
};

}  // namespace sorvane::crypto
