#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "base/error.h"

namespace sorvane::base {

class SupportFolderError : public Error {
 public:
  using Error::Error;
};

/// Names of what lies in the support folder.
inline constexpr std::string_view kSocketName = "agent.sock";
inline constexpr std::string_view kOwnerSocketName = "owner.sock";
inline constexpr std::string_view kEndpointName = "agent.json";
inline constexpr std::string_view kGrantsName = "agent_clients.json";
inline constexpr std::string_view kVaultName = "vault";
inline constexpr std::string_view kKeyFilesName = "key-files";
inline constexpr std::string_view kLockName = "sorvaned.lock";

/// The folder to use: `chosen` (of --support-dir), else SORVANE_SUPPORT_DIR, else the system's own place. Absolute, not
/// yet checked. Throws SupportFolderError when none can be told.
std::filesystem::path supportFolder(const std::optional<std::string>& chosen);

/// Throws SupportFolderError, with the path and what to do, unless the folder is a real folder (no link) of this user
/// that nobody else can write to, and a socket path in it fits the system's limit. A missing folder is made (0700) when
/// `make`.
enum class WhenMissing { make, refuse };
void checkSupportFolder(const std::filesystem::path& folder, WhenMissing whenMissing);

}  // namespace sorvane::base
