#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "proxy/refusal.h"
#include "proxy/request_head.h"

namespace sorvane::proxy {

/// Bounds of a request's head. A client's own heads have one to two kilobytes.
inline constexpr std::size_t kMaxRequestLineBytes = 8'192, kMaxHeadBytes = 32'768, kMaxHeaders = 100;

/// What a first line names as its target, be the line whole, cut short or not well formed: what stands behind its first
/// spaces. "" where nothing does yet.
std::string_view targetIn(std::string_view bytes);

/// ProxyHeadReader reads one request's head as its bytes arrive (grammar and codes: docs/proxy.md). It is strict where
/// others guess: lines end with CR LF, nothing is folded, no name stands twice. What it answers depends on the bytes
/// alone, not on the pieces they come in: the first violation in the order of the stream decides.
class ProxyHeadReader {
 public:
  enum class State { reading, finished, refused };

  /// Takes the next bytes. Does nothing once it is no longer `reading`.
  State feed(std::string_view bytes);
  State state() const { return state_; }

  /// The parsed head; only when `finished`.
  const ProxyRequestHead& head() const { return head_; }
  ProxyRequestHead takeHead() { return std::move(head_); }
  /// Only when `refused`. Kind invalidRequest.
  ProxyRefusal refusal() const;
  /// What came behind the head; only when `finished`, until the reader goes.
  std::string_view rest() const { return std::string_view(buffer_).substr(scanned_); }
  /// The target as far as the first line told it, for the form of a refusal.
  std::string_view target() const { return targetIn(buffer_); }
  /// Whether the first line, and with it the target, is whole.
  bool hasFirstLine() const { return firstLineEnd_.has_value(); }

 private:
  struct Violation {
    int status = 400;
    std::string_view code;
  };
  using Verdict = std::optional<Violation>;

  Verdict scan();
  Verdict takeByte(char byte);
  Verdict takeLine(std::string_view line);
  Verdict requestLine(std::string_view line);
  Verdict headerLine(std::string_view line);
  Verdict addHeader(std::string_view name, std::string_view value);
  /// What can be told only of the whole head.
  Verdict end();

  std::string buffer_;                       ///< every byte so far
  std::size_t scanned_ = 0;                  ///< how far it was looked at
  std::size_t lineStart_ = 0;                ///< where the present line begins
  std::optional<std::size_t> firstLineEnd_;  ///< behind the request line
  bool skippedLine_ = false;                 ///< the one empty line that may come before the request line
  bool transferEncoding_ = false;
  ProxyRequestHead head_;
  Violation violation_;
  State state_ = State::reading;
};

}  // namespace sorvane::proxy
