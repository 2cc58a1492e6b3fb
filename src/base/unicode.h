#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/secret_text.h"

namespace sorvane::base {

/// One decoded character; `size` is the number of bytes it took, at least 1. `valid` is false for a byte that starts no
/// well-formed UTF-8 sequence (surrogates, overlong forms and values above U+10FFFF included).
struct Decoded {
  char32_t character;
  std::size_t size;
  bool valid;
};

/// Decodes the character at the start of `text`, which must not be empty.
Decoded decodeUtf8(std::string_view text);

bool isUtf8(std::string_view text);

/// Replaces every byte that is not part of a well-formed sequence with U+FFFD, one for each maximal ill-formed part.
std::string repairedUtf8(std::string_view text);

/// The longest prefix of at most `limit` bytes that does not end inside a character.
std::string_view prefixOfWholeCharacters(std::string_view text, std::size_t limit);

/// Unicode property White_Space.
bool isWhiteSpace(char32_t character);

/// Unicode general category Cc.
bool isControl(char32_t character);

/// Unicode general categories of letters and of numbers.
bool isLetterOrNumber(char32_t character);

/// How many characters a person counts: extended grapheme clusters (Unicode annex 29). A byte that is no UTF-8 is one.
std::size_t characterCount(std::string_view text);

/// `text` without leading and trailing Unicode white space.
std::string_view trimmed(std::string_view text);

/// Unicode normalisation form C. Text that is not UTF-8 is returned unchanged.
std::string nfc(std::string_view text);

/// The same for text that must leave no copies: every buffer on the way is wiped. nullopt for what is not UTF-8.
std::optional<SecretText> nfcOfSecret(std::string_view text);

/// Columns that the text takes on a terminal: wide characters two, combining ones none.
std::size_t displayWidth(std::string_view text);

/// For showing foreign text to a person on one line: control, format and line-separating characters and bytes that are
/// no UTF-8 are written as escapes ("\n", "\x1b", "\u{202e}"), so that nothing can move the cursor or reorder what is
/// read.
std::string escapedForDisplay(std::string_view text);

/// Appends the UTF-8 form of a code point, which must be one (no surrogate, at most U+10FFFF).
void appendUtf8(std::string& out, char32_t character);

}  // namespace sorvane::base
