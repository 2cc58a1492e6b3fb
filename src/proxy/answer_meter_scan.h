#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sorvane::proxy {

/// What a value of an answer means.
enum class AnswerSlot : std::uint8_t {
  none,
  // whole numbers
  prompt,
  output,
  cacheRead,
  cacheWrite,
  write5m,
  write1h,
  write30m,
  write12h,
  webSearches,
  // decimal numbers
  cost,
  upstreamCost,
  // words and marks
  byok,
  type,
  serviceTier,
  speed,
  region,
  stopReason,
  // containers
  usage,
  iteration,
  choices,
  choice,
  error,
  text,  ///< every string at or below it is text that the model wrote
};
inline constexpr std::size_t kAnswerSlots = static_cast<std::size_t>(AnswerSlot::text) + 1;

/// A place in an answer: an object or array whose members mean something. 0 is the outermost, kNoPlace is anywhere
/// else.
using AnswerPlace = std::int8_t;
inline constexpr AnswerPlace kNoPlace = -1;
/// At `from`, a member `key` ("[]" for the elements of an array) has a meaning, and leads to the place `to`.
struct AnswerPath {
  AnswerPlace from;
  std::string_view key;
  AnswerSlot slot;
  AnswerPlace to;
};

/// AnswerSink takes what AnswerScan finds.
class AnswerSink {
 public:
  virtual ~AnswerSink() = default;
  /// A number, a string's inside as it stands, "true", "false" or "null"; cut at kMostAnswerToken bytes.
  virtual void scalar(AnswerSlot slot, std::string_view token, bool isString) = 0;
  virtual void opened(AnswerSlot slot) = 0;
  virtual void closed(AnswerSlot slot) = 0;
  virtual void text(std::size_t bytes) = 0;
};
inline constexpr std::size_t kMostAnswerToken = 64;
inline constexpr std::size_t kMostAnswerDepth = 512;

/// AnswerScan reads one JSON text that comes in pieces and reports the members that its paths name. It keeps nothing
/// but the nesting and one short token, so that an answer of any size is read in the same memory. It is only as strict
/// as it needs to be to keep its place; what it cannot follow it gives up.
class AnswerScan {
 public:
  /// `paths` and `sink` outlive the scan.
  AnswerScan(std::span<const AnswerPath> paths, AnswerSink& sink) : paths_(paths), sink_(sink) {}
  void feed(std::string_view bytes);
  /// One whole object was read and nothing is wrong.
  bool complete() const { return state_ == State::after && frames_.empty() && begun_; }
  void restart();

 private:
  enum class State : std::uint8_t {
    value,     ///< a value begins here
    first,     ///< a value or the end of its array
    firstKey,  ///< a key or the end of its object
    key,       ///< a key begins here
    colon,
    text,    ///< inside a string
    escape,  ///< behind its backslash
    bare,    ///< inside a number or a word
    after,   ///< behind a value
    lost
  };
  struct Frame {
    AnswerPlace place;
    AnswerSlot slot;
    bool isArray;
    bool isText;
  };
  void step(char c);
  const char* inString(const char* at, const char* end);
  const char* inBare(const char* at, const char* end);
  void beginValue(char c);
  void open(bool isArray);
  void close(bool isArray);
  void endString();
  void afterValue(char c);
  void meet(std::string_view key);
  void keep(std::string_view bytes);

  std::span<const AnswerPath> paths_;
  AnswerSink& sink_;
  State state_ = State::value;
  bool begun_ = false;
  bool isKey_ = false;  ///< the string is a key
  // What the next value means.
  AnswerSlot slot_ = AnswerSlot::none;
  AnswerPlace place_ = 0;
  bool isText_ = false;
  std::vector<Frame> frames_;
  std::string token_;
};

}  // namespace sorvane::proxy
