#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "base/json.h"
#include "base/secret_text.h"

namespace sorvane::cli::mcp {

// The frames of the model-context-protocol on standard input and output: JSON-RPC 2.0 objects, one a line.

/// Longest line that is read, in bytes without its end. Far above what sorvaned takes in one request.
inline constexpr std::size_t kMaxLineBytes = 1024 * 1024;

/// LineDecoder cuts a stream into lines. What of a longer line goes over the limit is not kept; the line then comes as
/// `tooLong`, without its text. A line that the stream's end cuts off never comes.
class LineDecoder {
 public:
  struct Line {
    base::SecretText text;
    bool tooLong = false;
  };

  explicit LineDecoder(std::size_t limit = kMaxLineBytes) : limit_(limit) {}
  /// Takes the bytes up to the first line feed and drops them, and it, from `bytes`; a whole line when there was one.
  std::optional<Line> take(std::string_view& bytes);

 private:
  const std::size_t limit_;
  Line line_;
};

// Error codes of JSON-RPC and of the protocol.
inline constexpr int kParseError = -32700;
inline constexpr int kInvalidRequest = -32600;
inline constexpr int kMethodNotFound = -32601;
inline constexpr int kInvalidParams = -32602;
inline constexpr int kUnsupportedVersion = -32022;

/// One decoded frame.
struct Frame {
  enum class Kind { request, notification, response, refused };
  Kind kind = Kind::refused;
  base::Json id;  ///< a text or an integer; null for a notification and when it cannot be told
  std::string method;
  base::Json params = base::Json::object();
  // Of a refused frame:
  int errorCode = 0;
  std::string problem;
};

/// Decodes one line; never throws. Every line that is not one JSON-RPC 2.0 object of the right shape is `refused`.
Frame decodeFrame(std::string_view line);

/// Wipes every text in `json`, keys excepted.
void wipeTexts(base::Json& json) noexcept;

}  // namespace sorvane::cli::mcp
