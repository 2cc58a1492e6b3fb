#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>

#include "base/descriptor.h"
#include "base/error.h"

namespace sorvane::base {

/// LockFileError carries a sentence shown as it stands.
class LockFileError : public Error {
 public:
  using Error::Error;
};

/// LockFile holds a folder for one process: the lock ends with the process, however it ends. The file holds the
/// holder's process id and stays, since removing it would let two holders in.
class LockFile {
 public:
  /// Throws LockFileError when another process holds it, which is named, and when the file cannot be made.
  explicit LockFile(const std::filesystem::path& path);

  /// Who holds the lock file at `path` now: the system's word, and the file's own only where the system has none.
  /// nullopt when nobody does.
  static std::optional<pid_t> holder(const std::filesystem::path& path);

 private:
  Descriptor file_;
};

}  // namespace sorvane::base
