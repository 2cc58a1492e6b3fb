// Where a backup may be written.
#include <sys/stat.h>

#include <cerrno>
#include <set>
#include <system_error>
#include <utility>

#include "base/diagnostics.h"
#include "unlock/backup_error.h"
#include "unlock/backup_file.h"

namespace sorvane::unlock {
namespace {

namespace fs = std::filesystem;

/// What tells one folder from another under whatever name.
using Identity = std::pair<dev_t, ino_t>;

/// Throws when nobody can tell: a folder that cannot be looked at may be any.
Identity identityOf(const fs::path& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    throw fs::filesystem_error("could not look at a folder", path, std::error_code(errno, std::generic_category()));
  }
  return {status.st_dev, status.st_ino};
}

/// The folder and all below it: one of them that is mounted elsewhere has other folders above it there.
std::set<Identity> foldersOf(const fs::path& folder) {
  std::set<Identity> all{identityOf(folder)};
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.symlink_status().type() == fs::file_type::directory) all.insert(identityOf(entry.path()));
  }
  return all;
}

/// Whether a folder, or one above it, is among them. `folder` has no links in it.
bool liesIn(const fs::path& folder, const std::set<Identity>& folders) {
  for (fs::path at = folder;; at = at.parent_path()) {
    if (folders.contains(identityOf(at))) return true;
    if (at == at.parent_path()) return false;
  }
}

/// The folder that a file of that name lies in, once with the name as it is and once with what it leads to.
bool leadsInto(const fs::path& path, const std::set<Identity>& folders) {
  if (liesIn(fs::canonical(path.parent_path()), folders)) return true;
  if (fs::symlink_status(path).type() != fs::file_type::symlink) return false;
  fs::path target = fs::weakly_canonical(path.parent_path() / fs::read_symlink(path));
  while (!fs::exists(target)) target = target.parent_path();
  return liesIn(target, folders);
}

}  // namespace

void requireBackupPlace(const BackupDestination& destination) try {
  if (leadsInto(destination.path, foldersOf(destination.supportFolder))) throw BackupError(sentence::kInsideVault);
  if (!destination.path.has_filename()) throw BackupError(sentence::kNotSaved);
  const fs::file_type type = fs::symlink_status(destination.path).type();
  if (type == fs::file_type::not_found) return;
  if (destination.existing == ExistingFile::refuse) throw BackupError(sentence::kFileExists);
  if (type != fs::file_type::regular && type != fs::file_type::symlink) throw BackupError(sentence::kNotSaved);
} catch (const fs::filesystem_error& error) {
  base::diagnose("backup", error.code().message());
  throw BackupError(sentence::kNotSaved);
}

}  // namespace sorvane::unlock
