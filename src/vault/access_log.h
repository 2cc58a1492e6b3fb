#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "base/files.h"
#include "vault/records.h"
#include "vault/vault.h"

namespace sorvane::vault {

// The access log of one generation's folder. The vault's lock is held around each call; failures of the files are
// FileError.

/// Appends the events with one write, synced.
void appendToLog(base::Files& files, const std::filesystem::path& folder, std::span<const AccessEvent> events);

/// Settles a last line without its line feed, which a cut-short append left: it is ended when it decodes and dropped
/// when not.
void settleLogTail(base::Files& files, const std::filesystem::path& folder);

/// Every event, those of the older whole-file form first; nullopt when anything of it does not decode.
std::optional<std::vector<AccessEvent>> readLog(const base::Files& files, const std::filesystem::path& folder);

/// Moves what does not decode into a file beside the log, named with `stamp`. Written aside first, so nothing is ever
/// lost.
LogRepair repairLog(base::Files& files, const std::filesystem::path& folder, std::string_view stamp);

}  // namespace sorvane::vault
