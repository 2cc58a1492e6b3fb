#pragma once

#include <optional>
#include <string>

#include "cli/session.h"

namespace sorvane::cli {

/// Whether a person can be asked here: there is a terminal and --no-input was not given.
bool canAsk(const Options& options);
/// A line typed on the terminal, without its end; nullopt at the end of input.
std::optional<std::string> typedLine(const std::string& question);
/// Only "y" and "yes" are a yes.
bool confirmed(const std::string& question);

}  // namespace sorvane::cli
