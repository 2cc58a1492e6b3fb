#pragma once

#include <string>

#include "base/secret_text.h"
#include "cli/session.h"

namespace sorvane::cli {

/// A value from standard input when that is no terminal (one line feed at its end is dropped unless `keepNewline`),
/// else typed twice on the terminal without echo. Never from an argument. Throws Failure when nothing came, when the
/// two differ, or when a person would have to type and --no-input forbids it.
/// `once`: for what exists already and is only to be recognised.
enum class Typing { once, twice };
base::SecretText readValue(const Options& options, const std::string& what, bool keepNewline,
                           Typing typing = Typing::twice);

}  // namespace sorvane::cli
