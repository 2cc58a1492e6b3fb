#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/secret_text.h"

namespace sorvane::vault {

/// One assignment of a .env file. `line` counts from 1.
struct EnvEntry {
  std::string name;
  base::SecretText value;
  std::size_t line = 0;
};

/// What a .env file assigns. A name that stands more than once has its last value, in the place of its first.
struct EnvText {
  std::vector<EnvEntry> entries;
  std::vector<std::string> duplicates;  ///< names that stand more than once
  std::size_t skippedLines = 0;         ///< neither assignments, comments nor blank
};

/// Reads a .env file as its common readers agree to: NAME=value lines, "export " in front and a byte-order mark
/// dropped, lines that begin with "#" and what follows " #" behind a plain value left out, plain values trimmed, values
/// between equal quotes (', " or `) byte for byte and over several lines. "$" and "\" mean themselves, so nothing is
/// expanded and nothing is run. Lines that are not understood are skipped. nullopt when the bytes are not text: a NUL
/// or invalid UTF-8. Pure; takes foreign bytes (docs/formats.md).
std::optional<EnvText> readEnv(std::string_view bytes);

}  // namespace sorvane::vault
