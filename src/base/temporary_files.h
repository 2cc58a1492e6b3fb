#pragma once

#include <filesystem>
#include <string_view>

#include "base/files.h"

namespace sorvane::base {

/// Whether the name is one that an interrupted Files::writeAtomically leaves behind.
bool isTemporaryFile(std::string_view name);

/// Removes such files from a folder; one that cannot be removed does no harm where it is. Does not throw for them.
void removeTemporaryFiles(Files& files, const std::filesystem::path& folder);

}  // namespace sorvane::base
