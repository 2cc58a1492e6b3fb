#pragma once

#include "cli/commands.h"

namespace sorvane::cli {

/// The options that every command takes as well, wherever they stand.
void addOptions(CLI::App& app, Options& options);

/// Adds the group that the first word names, or all of them, for help, for completions and for a word that none knows.
/// Building every option costs more than most commands.
void addCommands(Commands& commands, CLI::App& app, int count, char** words);

}  // namespace sorvane::cli
