#pragma once

#include <string_view>

#include "base/secret_text.h"

namespace sorvane::cli {

/// The most bytes of a line; what is typed beyond them is dropped. More than any store takes, so that what is too long
/// is refused by the one who knows the limit.
inline constexpr std::size_t kMostTyped = 64 * 1024;

/// Shows `words` on the terminal and reads a line without echo, in raw mode: Backspace takes a character back, Ctrl-U
/// all of them. Empty when the input ended. The terminal is as it was before anything else happens: Ctrl-C, Ctrl-\ and
/// the signals that end a program do so afterwards. One at a time in a process.
base::SecretText hiddenLine(int terminal, std::string_view words);

}  // namespace sorvane::cli
