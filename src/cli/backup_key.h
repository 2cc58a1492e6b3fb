#pragma once

#include <filesystem>
#include <string>

#include "base/secret_text.h"
#include "cli/session.h"

namespace sorvane::cli {

/// Shows a new recovery key of the backup that goes to `file`, offers a page to print, and has its last group typed
/// back. Without a person it is printed alone. False when it was not typed back.
bool showRecoveryKey(const Options& options, const base::SecretText& key, const std::string& file);

}  // namespace sorvane::cli
