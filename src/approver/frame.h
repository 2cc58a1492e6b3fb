#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/error.h"

namespace sorvane::approver {

/// LinkError ends a link: what came over it is not what the computer this device is paired with would send. The
/// sentence may be shown.
class LinkError : public base::Error {
 public:
  enum class Case {
    unreadable,     ///< a frame, an envelope, a box or a record that cannot be read, or stands where it may not
    wrongComputer,  ///< another key than the paired computer's, or a proof that does not hold
  };
  explicit LinkError(Case kind);
  Case kind() const { return kind_; }

 private:
  Case kind_;
};

/// The most bytes of a body (docs/phone-link.md, Transport).
inline constexpr std::size_t kMostBodyBytes = 65'536;

/// A body with its length in front, as it goes over the wire. The body is 1 to kMostBodyBytes long.
std::string framed(std::string_view body);

/// FrameReader takes the bytes of a stream in whatever portions they come.
class FrameReader {
 public:
  void add(std::span<const std::uint8_t> bytes);
  /// The next whole body; nullopt until more has come. Throws LinkError for a length that no body has, before the body
  /// is waited for.
  std::optional<std::string> next();
  /// Whether a frame has begun of which more must come.
  bool isInFrame() const { return !buffer_.empty(); }

 private:
  std::string buffer_;
};

}  // namespace sorvane::approver
