#include "base/support_folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "base/system.h"

namespace sorvane::base {

namespace fs = std::filesystem;

fs::path supportFolder(const std::optional<std::string>& chosen) {
  fs::path folder;
  if (chosen) {
    folder = *chosen;
  } else if (const char* variable = std::getenv("SORVANE_SUPPORT_DIR"); variable != nullptr && *variable != '\0') {
    folder = variable;
  } else {
    folder = defaultSupportFolder();
  }
  if (folder.empty()) {
    throw SupportFolderError("There is no home folder to keep the vault in. Choose a folder with --support-dir.");
  }
  fs::path absolute = fs::absolute(folder).lexically_normal();
  return absolute.has_filename() ? absolute : absolute.parent_path();
}

void checkSupportFolder(const fs::path& folder, WhenMissing whenMissing) {
  struct stat status {};
  if (::lstat(folder.c_str(), &status) != 0) {
    if (errno != ENOENT) {
      const std::string reason = std::system_category().message(errno);
      throw SupportFolderError("The support folder " + folder.string() + " cannot be used (" + reason + ").");
    }
    if (whenMissing == WhenMissing::refuse) {
      throw SupportFolderError("There is no support folder at " + folder.string() + ". Start sorvaned first.");
    }
    std::error_code error;
    fs::create_directories(folder.parent_path(), error);
    if (::mkdir(folder.c_str(), 0700) != 0 || ::lstat(folder.c_str(), &status) != 0) {
      const std::string reason = std::system_category().message(errno);
      throw SupportFolderError("The support folder " + folder.string() + " could not be made (" + reason + ").");
    }
  }
  if (!S_ISDIR(status.st_mode)) {
    throw SupportFolderError("The support folder " + folder.string() +
                             " is not a folder, or is a link. Choose a real folder with --support-dir.");
  }
  if (status.st_uid != ::geteuid()) {
    throw SupportFolderError("The support folder " + folder.string() +
                             " belongs to another user. Choose a folder of your own with --support-dir.");
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw SupportFolderError(
        "The support folder " + folder.string() +
        " can be written by other users. Run chmod 700 on it, or choose another with --support-dir.");
  }
  const std::string socket = (folder / kSocketName).string();
  if (socket.size() + 1 > maxSocketPath()) {
    throw SupportFolderError("The socket path " + socket + " is " + std::to_string(socket.size()) +
                             " bytes long, and the system allows at most " + std::to_string(maxSocketPath() - 1) +
                             ". Choose a shorter folder with --support-dir.");
  }
}

}  // namespace sorvane::base
