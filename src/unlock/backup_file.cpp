#include "unlock/backup_file.h"

#include <algorithm>
#include <cerrno>

#include "base/diagnostics.h"
#include "base/ids.h"
#include "unlock/backup_envelope.h"
#include "unlock/backup_error.h"

namespace sorvane::unlock {
namespace {

namespace fs = std::filesystem;

/// Whether `path` is `folder` or lies below it, told by what the system says is the same folder: a link, another
/// spelling or a second mount does not hide it.
bool liesWithin(const fs::path& path, const fs::path& folder) {
  std::error_code error;
  for (fs::path at = fs::weakly_canonical(path, error); !error; at = at.parent_path()) {
    std::error_code unknown;
    if (fs::equivalent(at, folder, unknown)) return true;
    if (at == at.parent_path()) return false;
  }
  return false;
}

bool isThere(const fs::path& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

bool holds(const base::Files& files, const fs::path& path, const base::SecretText& data) {
  auto contents = files.read(path, data.size());
  if (!contents) return false;
  const bool same = std::ranges::equal(contents->bytes, data.bytes());
  base::wipe(contents->bytes.data(), contents->bytes.size());
  return same;
}

/// A file beside the destination that is gone at the end unless it was moved.
class Beside {
 public:
  Beside(base::Files& files, const fs::path& destination)
      : files_(files),
        path_(destination.parent_path() /
              (".sorvane-backup." + base::randomHex(16) + std::string(base::Files::kTemporarySuffix))) {}
  ~Beside() {
    if (path_.empty()) return;
    try {
      files_.remove(path_);
    } catch (const base::FileError& error) {
      base::diagnose("backup", "a file of a backup that was not saved stays behind: " + error.sentence());
    }
  }
  Beside(const Beside&) = delete;
  Beside& operator=(const Beside&) = delete;

  const fs::path& path() const { return path_; }
  void moveTo(const fs::path& destination) {
    files_.rename(path_, destination);
    path_.clear();
  }

 private:
  base::Files& files_;
  fs::path path_;
};

}  // namespace

void requireBackupPlace(const BackupDestination& destination) {
  // The folder, and where a link of that name leads to.
  if (liesWithin(destination.path.parent_path(), destination.vaultFolder) ||
      liesWithin(destination.path, destination.vaultFolder)) {
    throw BackupError(sentence::kInsideVault);
  }
  if (!destination.path.has_filename()) throw BackupError(sentence::kNotSaved);
  if (destination.existing == ExistingFile::refuse && isThere(destination.path)) {
    throw BackupError(sentence::kFileExists);
  }
}

BackupFile readBackupFile(const base::Files& files, const fs::path& path) try {
  std::error_code error;
  const fs::path real = fs::canonical(path, error);
  if (error == std::errc::no_such_file_or_directory) throw BackupError(sentence::kFileMissing);
  if (error) throw BackupError(sentence::fileNotRead(error.message()));
  auto contents = files.read(real, kMaxBackupBytes);
  if (!contents) throw BackupError(sentence::kFileMissing);
  const base::FileIdentity before = contents->identity;
  BackupFile file(std::move(contents->bytes));
  if (file.text().size() != before.size || files.identity(real) != before) throw BackupError(sentence::kFileChanged);
  return file;
} catch (const base::FileError& error) {
  if (error.number() == EFBIG) throw BackupError(sentence::kFileTooLarge);
  throw BackupError(sentence::fileNotRead(error.sentence()));
}

void saveBackupFile(base::Files& files, const BackupDestination& wanted, const base::SecretText& data,
                    const std::function<void()>& check) try {
  BackupDestination destination = wanted;
  destination.path = fs::absolute(wanted.path);
  requireBackupPlace(destination);
  Beside beside(files, destination.path);
  files.writeAtomically(beside.path(), data.bytes());
  if (!holds(files, beside.path(), data)) throw BackupError(sentence::kSavedNotVerified);
  if (check) check();
  requireBackupPlace(destination);  // looked at again: verifying took a while
  beside.moveTo(destination.path);
  if (!holds(files, destination.path, data)) {
    files.remove(destination.path);  // what cannot be trusted must not look like a backup
    throw BackupError(sentence::kSavedNotVerified);
  }
} catch (const base::FileError& error) {
  base::diagnose("backup", error.sentence());
  throw BackupError(sentence::kNotSaved);
} catch (const fs::filesystem_error& error) {
  base::diagnose("backup", error.code().message());
  throw BackupError(sentence::kNotSaved);
}

}  // namespace sorvane::unlock
