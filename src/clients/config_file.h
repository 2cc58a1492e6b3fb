#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "base/error.h"

namespace sorvane::clients {

/// ConfigFileError tells why a client's configuration file was left alone; its sentence is shown as it stands.
class ConfigFileError : public base::Error {
 public:
  using Error::Error;
};

/// A client's configuration file as it was read. `path` has no links.
struct ConfigFile {
  std::filesystem::path path;
  std::string text;
  mode_t mode = 0600;
};

/// nullopt when there is none. A link to a regular file of this user is followed; anything else, and a file over
/// kMaxConfigBytes, throws ConfigFileError.
std::optional<ConfigFile> readConfigFile(const std::filesystem::path& path);

/// Replaces the file by what `edit` makes of its text ("" for a file that is not there), keeping its mode: written
/// beside it, synced, renamed. The file is read again just before the rename, and the edit is done anew when it
/// changed. The first time, the earlier text is kept beside it as "<name>.sorvane-backup" (0600). When `edit` returns
/// nullopt nothing is written. Returns whether something was written. Throws ConfigFileError.
bool updateConfigFile(const std::filesystem::path& path,
                      const std::function<std::optional<std::string>(const std::string& text)>& edit);

}  // namespace sorvane::clients
