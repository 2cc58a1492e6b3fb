#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "base/secret_text.h"

namespace sorvane::proxy {

/// EchoMask overwrites a key in a stream of any length, whatever the pieces it comes in: the key's own bytes and the
/// forms that it has in a JSON string. Every byte of a match becomes '*', so that lengths stay what the provider said.
/// It holds back what may begin a match at the end of a piece, less than the key's length, and nothing else. Keys
/// shorter than kShortestKey are not looked for: no provider gives such, and words would be masked.
class EchoMask {
 public:
  static constexpr std::size_t kShortestKey = 8;

  explicit EchoMask(const base::SecretText& key);
  ~EchoMask();
  EchoMask(const EchoMask&) = delete;
  EchoMask& operator=(const EchoMask&) = delete;

  /// The bytes that can be shown now: a view of `bytes` where nothing was changed or held back before, else of a buffer
  /// that is valid until the next call.
  std::string_view pass(std::string_view bytes);
  /// The end of the stream: what was held back and turned out to be nothing.
  std::string_view rest();
  /// A whole text by itself, such as a header's value.
  void maskWhole(std::string& text) const;

 private:
  std::size_t beginningAtEnd(std::string_view text) const;

  std::vector<base::SecretText> needles_;
  std::string held_;  ///< the end of what was given that may begin a match
  std::string work_;
};

}  // namespace sorvane::proxy
