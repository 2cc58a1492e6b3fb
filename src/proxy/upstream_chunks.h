#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace sorvane::proxy {

/// UpstreamChunks takes chunked framing off an answer (RFC 9112 section 7.1), strictly: a size is hexadecimal digits
/// and every line ends with both characters. Extensions and trailers are dropped. In pieces of any size.
class UpstreamChunks {
 public:
  static constexpr std::size_t kMostLineBytes = 4'096, kMostTrailerBytes = 16'384;
  static constexpr int kMostSizeDigits = 15;

  /// Appends the data of `raw` to `out`; false when it is malformed, now and from then on.
  bool feed(std::string_view raw, std::string& out);
  /// The last chunk and its trailers were read.
  bool ended() const { return state_ == State::ended; }
  /// Bytes came behind the end, so the connection cannot be trusted for another answer.
  bool excess() const { return excess_; }

 private:
  // size -> sizeEnd -> data -> dataCr -> dataLf -> size; a size of 0 -> trailer ... -> ended
  enum class State {
    size,
    extension,
    sizeEnd,
    data,
    dataCr,
    dataLf,
    trailerStart,
    trailer,
    trailerLf,
    lastLf,
    ended,
    refused
  };

  State next(char c);
  State nextOfSize(char c);

  State state_ = State::size;
  bool excess_ = false;
  int digits_ = 0;
  std::uint64_t left_ = 0;
  std::size_t lineBytes_ = 0;
};

}  // namespace sorvane::proxy
