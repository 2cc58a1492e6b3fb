#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace sorvane::cli {

/// The person ended the input (Ctrl-D).
struct EndOfInput {};

/// `text` in lines of at most `width` columns, the further ones indented by `indent`. Breaks at spaces; a word that is
/// wider than a line is broken inside.
std::vector<std::string> wrapped(std::string_view text, std::size_t width, std::size_t indent);

/// Dialog talks with a person line by line, without moving a cursor: what is said can be read by a screen reader, in a
/// scroll-back, and on a terminal of any kind. Lines are as wide as the terminal, 80 columns at most.
class Dialog {
 public:
  static constexpr std::size_t kWidest = 80;

  /// One paragraph, escaped: names in it may be another program's words.
  void say(std::string_view text, std::size_t indent = 0) const;
  void blank() const;
  /// Shows the prompt and reads what is typed up to Enter, without white space around it. Throws EndOfInput.
  std::string ask(std::string_view prompt) const;
};

}  // namespace sorvane::cli
