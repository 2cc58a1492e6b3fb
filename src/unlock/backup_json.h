#pragma once

#include <cstdint>
#include <string_view>

#include "base/secret_text.h"

namespace sorvane::unlock {

/// JsonCursor reads one JSON text from front to back and builds nothing: a backup may be 256 MB of anything, and what
/// reading it takes must not depend on how it is nested or how many values it has. RFC 8259 strictly, at most
/// base::kMaxJsonDepth levels. Every call throws Malformed where the text is not what was asked for. The text must be
/// UTF-8 and outlive the cursor.
class JsonCursor {
 public:
  struct Malformed {};
  enum class Kind { object, array, string, number, boolean, null };

  explicit JsonCursor(std::string_view text) : text_(text) {}

  /// What the next value is, by its first character.
  Kind kind();
  /// Passes over the next value, checking its grammar, and returns its text.
  std::string_view skip();
  /// Calls `member` with each key; it must pass over or read the value behind it.
  template <typename Member>
  void object(const Member& member) {
    enter('{');
    if (!leave('}')) {
      do {
        const base::SecretText key = string();
        expect(':');
        member(key.view());
      } while (more('}'));
    }
    --depth_;
  }
  /// Calls `item` before each item, which it must pass over or read.
  template <typename Item>
  void array(const Item& item) {
    enter('[');
    if (!leave(']')) {
      do {
        item();
      } while (more(']'));
    }
    --depth_;
  }
  /// A string with its escapes undone.
  base::SecretText string();
  /// The same without a copy when there is nothing to undo; otherwise undone into `scratch`.
  std::string_view stringView(base::SecretText& scratch);
  /// A number without fraction or exponent.
  std::int64_t integer();
  /// Nothing but white space is left.
  void end();

 private:
  char peek();
  void expect(char character);
  void enter(char bracket);
  bool leave(char bracket);
  bool more(char bracket);
  /// Passes over a string and returns what stands between its quotes; `escaped` tells whether there is an escape.
  std::string_view rawString(bool& escaped);
  void skipNumber();
  void skipWord(std::string_view word);

  std::string_view text_;
  std::size_t at_ = 0;
  int depth_ = 0;
};

}  // namespace sorvane::unlock
