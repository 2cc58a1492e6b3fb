#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/secret_text.h"

namespace sorvane::phone {

// Frames of the link (docs/phone-link.md, Transport): a length in 4 bytes, big-endian, and that many bytes.

inline constexpr std::size_t kFrameHeadBytes = 4;
inline constexpr std::size_t kMostFrameBytes = 65'536;

/// The frame of `body`; nullopt unless the body has 1 to kMostFrameBytes bytes.
std::optional<base::Bytes> writeFrame(std::string_view body);

/// FrameReader cuts what comes over one link into bodies. It holds what was added and not yet taken, and a body's room
/// grows with the bytes that come, not with the length they announce. One thread.
class FrameReader {
 public:
  /// Adds what was read. Nothing is kept behind a length that is not allowed.
  void add(std::span<const std::uint8_t> bytes);
  /// The next whole body, if it is there. Taken until there is none before more is added, so that no more is held than
  /// one frame and one read.
  std::optional<std::string> next();
  /// A length is not 1 to kMostFrameBytes: the link ends. Bodies before it can still be taken.
  bool isBroken() const { return broken_; }
  /// A frame has begun and its rest is missing.
  bool hasBegun() const { return !broken_ && !held_.empty(); }

 private:
  /// The announced length; nullopt while its bytes are missing.
  std::optional<std::size_t> length() const;
  /// Looks at the length once its bytes are there.
  void check();

  std::string held_;
  bool broken_ = false;
};

}  // namespace sorvane::phone
