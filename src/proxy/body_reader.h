#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sorvane::proxy {

/// Deepest nesting of a body, far beyond the schemas that clients send; the most members of one object, and the most
/// keys with escapes in one body.
inline constexpr int kMostBodyDepth = 128;
inline constexpr std::size_t kMostBodyMembers = 100'000;

enum class BodyProblem { none, notUtf8, malformed, duplicateKey, tooDeep };

/// BodyReader reads one JSON text (RFC 8259) in a single pass without building a value. It is strict: well-formed
/// UTF-8, no key twice in an object at any depth (compared after escapes are undone), bounded depth, nothing behind the
/// value. The first problem ends the reading: from then on every call finds nothing, and `problem` says what it was.
/// What is skipped is checked as well as what is read.
class BodyReader {
 public:
  enum class Kind { object, array, string, number, boolean, null, nothing };

  /// `text` outlives the reader.
  explicit BodyReader(std::string_view text);

  /// The kind of the next value; `nothing` where no value begins.
  Kind kind();
  /// Where the next value begins.
  std::size_t position();
  /// Where the last value ended.
  std::size_t consumed() const { return static_cast<std::size_t>(at_ - begin_); }
  /// Calls `member` with each key of the object; it is to take exactly one value. Anything but an object is skipped.
  template <typename Member>
  void object(Member&& member) {
    if (kind() != Kind::object) return skip();
    const std::size_t first = keys_.size();
    for (bool more = open('}'); more; more = next('}')) {
      const auto key = takeKey(first);
      if (!key) return;
      member(*key);
    }
    close(first);
  }
  /// Calls `element` for each element; it is to take exactly one value. Anything but an array is skipped.
  template <typename Element>
  void array(Element&& element) {
    if (kind() != Kind::array) return skip();
    for (bool more = open(']'); more; more = next(']')) element();
    --depth_;
  }
  void skip();
  /// The text with its escapes undone. nullopt for anything but a string, which is skipped, and for a string with half
  /// a surrogate pair, which is a problem.
  std::optional<std::string> string();
  /// The bytes between the quotes as they stand; nullopt for anything but a string, which is skipped.
  std::optional<std::string_view> rawString();
  /// A whole number written without point and exponent; nullopt for anything else, which is skipped. Saturates.
  std::optional<std::int64_t> integer();
  /// nullopt for anything else, which is skipped.
  std::optional<bool> boolean();
  /// Whether the text ends here and nothing was wrong.
  bool finish();

  BodyProblem problem() const { return problem_; }
  /// Whether a key of this name was met at any depth; "cache_control" and "ttl" only.
  bool metCacheControl() const { return metCacheControl_; }
  bool metTimeToLive() const { return metTimeToLive_; }

 private:
  void fail(BodyProblem problem);
  void skipSpace();
  bool open(char bracket);
  bool next(char bracket);
  void close(std::size_t firstKey);
  std::optional<std::string_view> takeKey(std::size_t firstKey);
  bool takeEscape();
  void skipNumber();
  bool digits();
  bool literal(std::string_view word);

  const char* at_;
  const char* end_;
  const char* begin_;
  BodyProblem problem_ = BodyProblem::none;
  int depth_ = 0;
  bool escaped_ = false;  ///< the last rawString held an escape
  bool metCacheControl_ = false, metTimeToLive_ = false;
  std::vector<std::string_view> keys_;  ///< of every open object, outermost first
  std::deque<std::string> unescaped_;   ///< keys that were written with escapes
};

}  // namespace sorvane::proxy
