#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "agent/masking.h"
#include "base/secret_text.h"

namespace sorvane::agent {

/// Where something must be masked: the bytes from `start` to before `end` of the searched text.
struct Span {
  std::size_t start;
  std::size_t end;
};

/// Masker::Index finds all needles in one pass over a text. It looks at the four bytes at every `stride_`-th place
/// only: a needle of `stride_ + 3` bytes or more covers one of these places with four of its first `stride_ + 3` bytes,
/// and those are known in a bit map. A place that the map knows is looked up, and then the needles are compared there:
/// they lie sorted, so that the longest one that begins there is found by halving however many share their first bytes.
struct Masker::Index {
  explicit Index(std::vector<base::SecretText> needles);
  ~Index();
  Index(const Index&) = delete;
  Index& operator=(const Index&) = delete;

  /// Appends, in ascending order of start, the longest match that begins at each place before `limit` and ends within
  /// the text. Spans may overlap.
  void find(std::string_view text, std::size_t limit, std::vector<Span>& found) const;
  std::size_t longest() const { return longest_; }
  /// Length of the longest end of `text` that begins a needle and is shorter than it; 0 when no end does.
  std::size_t openEnd(std::string_view text) const;

 private:
  struct Gram {
    std::uint32_t bytes;
    std::uint32_t offsets;  ///< bit o: some needle has these bytes at offset o; 0: an empty slot
  };

  void addGram(std::uint32_t bytes, std::size_t offset);
  std::uint32_t offsetsOf(std::uint32_t bytes) const;
  std::size_t longestMatch(std::string_view text, std::size_t first, std::size_t last) const;
  void findLong(std::string_view text, std::size_t limit, std::vector<Span>& found) const;
  void findShort(std::string_view text, std::size_t limit, std::vector<Span>& found) const;

  std::vector<base::SecretText> needles_;  ///< sorted; the short ones are left out of the grams
  std::vector<std::uint32_t> prefixOf_;    ///< index of the longest other needle that begins this one, or kNone
  std::size_t longest_ = 0;
  std::size_t stride_ = 0;  ///< 0: no long needles
  bool hasShort_ = false;
  std::vector<std::uint64_t> map_;  // wiped, as is table_: both tell parts of the needles
  std::vector<Gram> table_;
  std::vector<std::uint32_t> firstAt_;  ///< needles that begin with byte b are firstAt_[b] to before firstAt_[b + 1]
  std::vector<bool> shortStart_;        ///< bytes that begin a short needle
};

}  // namespace sorvane::agent
