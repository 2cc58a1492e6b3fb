#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "base/secret_text.h"

namespace sorvane::agent {

/// What stands in the place of a value.
inline constexpr std::string_view kMask = "‹redacted›";

/// Masker knows a set of values and their encoded forms and is built once per command. Immutable, safe from any thread;
/// its needles are wiped with it. Empty values are no needles. Values of kEncodedFormsFrom bytes or more are also known
/// as standard and URL-safe base64 at all three alignments, lower- and upper-case hexadecimal, percent-encoded,
/// JSON-escaped, and line by line where a value has several lines of kEncodedFormsFrom bytes or more.
class Masker {
 public:
  static constexpr std::size_t kEncodedFormsFrom = 8;

  explicit Masker(std::span<const std::string_view> values);
  ~Masker();
  Masker(Masker&&) noexcept;
  Masker& operator=(Masker&&) noexcept;

  /// Length of the longest needle in bytes: what a stream may have to hold back, plus one.
  std::size_t longestNeedle() const;

 private:
  friend class MaskingStream;
  struct Index;
  std::unique_ptr<const Index> index_;
};

/// MaskingStream replaces every match in a stream of any length, whatever the pieces it comes in; matches that overlap
/// become one mask. It holds back fewer bytes than the longest needle. Invalid UTF-8 comes out as U+FFFD, and no piece
/// of the output ends inside a character. The masker must outlive it. One thread at a time.
///
/// For a person who watches, `settle` after each piece shows everything that does not begin a value, and `pause` shows
/// the beginnings that stand for nothing, such as one letter.
class MaskingStream {
 public:
  /// So many bytes that begin a value are never shown by a pause; fewer are, and what follows them is masked still.
  static constexpr std::size_t kKeptAcrossPauses = 4;

  explicit MaskingStream(const Masker& masker);
  ~MaskingStream();

  /// Appends to `out` what can no longer become part of a match.
  void feed(std::string_view piece, std::string& out);
  /// Appends everything but the longest end of the input that begins a match.
  void settle(std::string& out);
  /// No input came for a while: as settle, and a beginning shorter than kKeptAcrossPauses is appended too. When its
  /// value follows after all, what was not yet appended of it is masked.
  void pause(std::string& out);
  /// Whether something is held back that was not appended in any form.
  bool holds() const;
  /// The end of the input: appends what was held back.
  void finish(std::string& out);
  /// The input was cut here: what is held back might be the start of a value, and is dropped.
  void cut(std::string& out);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace sorvane::agent
