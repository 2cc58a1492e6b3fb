// Puts the bytes of a backup where they belong, with what was there before kept until they are.
#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include "base/diagnostics.h"
#include "base/ids.h"
#include "base/temporary_files.h"
#include "unlock/backup_error.h"
#include "unlock/backup_file.h"

namespace sorvane::unlock {
namespace {

namespace fs = std::filesystem;

/// Names beside a destination begin like this.
constexpr std::string_view kBeside = ".sorvane-backup.";
/// Where a file that is replaced waits on a file system that cannot swap two names. Never removed by itself.
constexpr std::string_view kOldSuffix = ".old";

fs::path besideName(const fs::path& destination, std::string_view suffix) {
  return destination.parent_path() / (std::string(kBeside) + base::randomHex(16) + std::string(suffix));
}

bool same(base::Bytes bytes, const base::SecretText& data) {
  const bool isSame = std::ranges::equal(bytes, data.bytes());
  base::wipe(bytes.data(), bytes.size());
  return isSame;
}

bool holds(const base::Files& files, const fs::path& path, const base::SecretText& data) {
  auto contents = files.read(path, data.size());
  return contents && same(std::move(contents->bytes), data);
}

/// Removes a file and tells whether it is gone; that the folder could not be synced does not count.
bool isRemoved(base::Files& files, const fs::path& path) try {
  try {
    files.remove(path);
  } catch (const base::FileError& error) {
    base::diagnose("backup", error.sentence());
  }
  return !files.identity(path);
} catch (const base::FileError&) {
  return false;
}

/// NewFile is the file on its way: without a name where there are such files, else under one beside the destination
/// that is gone at the end.
class NewFile {
 public:
  NewFile(base::Files& files, const fs::path& destination, const base::SecretText& data)
      : files_(files), unnamed_(files.writeUnnamed(destination.parent_path(), data.bytes())) {
    if (unnamed_) return;
    name_ = besideName(destination, base::Files::kTemporarySuffix);
    files_.writeAtomically(name_, data.bytes());
  }
  ~NewFile() {
    if (!name_.empty() && !isRemoved(files_, name_)) {
      base::diagnose("backup", "a file of a backup that was not saved stays behind: " + name_.string());
    }
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  bool isSound(const base::SecretText& data) const {
    return unnamed_ ? same(unnamed_->read(), data) : holds(files_, name_, data);
  }
  /// Under a name that nothing has; FileError EEXIST when something does.
  void moveTo(const fs::path& destination) {
    if (unnamed_) {
      std::exchange(unnamed_, nullptr)->name(destination);
    } else {
      files_.moveToNew(name_, destination);
      name_.clear();
    }
  }
  /// Swaps it with the file of that name, which then has this one's end; false where that cannot be done.
  bool swapWith(const fs::path& destination) {
    if (unnamed_) {
      name_ = besideName(destination, base::Files::kTemporarySuffix);
      unnamed_->name(name_);
      unnamed_ = nullptr;
    }
    return files_.exchange(name_, destination);
  }

 private:
  base::Files& files_;
  std::unique_ptr<base::Files::UnnamedFile> unnamed_;
  fs::path name_;  ///< empty while there is none
};

/// Placement is the new file in its place, taken back at the end unless it was kept.
class Placement {
 public:
  Placement(base::Files& files, NewFile& file, const BackupDestination& destination)
      : files_(files), file_(file), path_(destination.path) {
    const auto isThere = [&] { return fs::symlink_status(path_).type() != fs::file_type::not_found; };
    try {
      if (destination.existing == ExistingFile::refuse || !isThere()) {
        file_.moveTo(path_);
        return;
      }
    } catch (const base::FileError& error) {
      if (error.number() == EEXIST) throw BackupError(sentence::kFileExists);
      throw;
    }
    isSwapped_ = file_.swapWith(path_);
    if (isSwapped_) return;
    aside_ = besideName(path_, kOldSuffix);
    files_.moveToNew(path_, aside_);
    try {
      file_.moveTo(path_);
    } catch (const base::FileError&) {
      files_.moveToNew(aside_, path_);
      throw;
    }
  }
  Placement(const Placement&) = delete;
  Placement& operator=(const Placement&) = delete;

  /// What was replaced is no longer needed.
  void keep() {
    if (!aside_.empty() && !isRemoved(files_, aside_)) {
      base::diagnose("backup", "the file that was replaced stays behind: " + aside_.string());
    }
  }
  /// Puts back what was there before. Throws BackupError that says what stands there now when it cannot.
  void takeBack() try {
    if (isSwapped_ && !file_.swapWith(path_)) throw base::FileError("could not swap the files back", EIO);
    if (!isSwapped_ && !isRemoved(files_, path_)) throw base::FileError("could not remove the file", EIO);
    if (!aside_.empty()) files_.moveToNew(aside_, path_);
  } catch (const base::FileError& error) {
    base::diagnose("backup", error.sentence());
    throw BackupError(sentence::notTakenBack(path_.string(), aside_.string()));
  }

 private:
  base::Files& files_;
  NewFile& file_;
  const fs::path path_;
  fs::path aside_;  ///< where the replaced file is when it could not be swapped
  bool isSwapped_ = false;
};

void requireSound(bool isSound) {
  if (!isSound) throw BackupError(sentence::kSavedNotVerified);
}

}  // namespace

void saveBackupFile(base::Files& files, const BackupDestination& wanted, const base::SecretText& data,
                    const std::function<void()>& check) try {
  BackupDestination destination = wanted;
  destination.path = fs::absolute(wanted.path);
  requireBackupPlace(destination);
  NewFile file(files, destination.path, data);
  requireSound(file.isSound(data));
  if (check) check();
  requireBackupPlace(destination);  // looked at again: verifying took a while
  Placement placement(files, file, destination);
  try {
    files.syncFolder(destination.path.parent_path());
    requireSound(holds(files, destination.path, data));
  } catch (const base::Error&) {
    placement.takeBack();
    throw;
  }
  placement.keep();
} catch (const base::FileError& error) {
  base::diagnose("backup", error.sentence());
  throw BackupError(sentence::kNotSaved);
} catch (const fs::filesystem_error& error) {
  base::diagnose("backup", error.code().message());
  throw BackupError(sentence::kNotSaved);
}

void removeOldLeftovers(base::Files& files, const fs::path& folder, base::Date now) try {
  const std::int64_t newest = (now - kOldLeftover).time_since_epoch().count();
  for (const std::string& name : files.list(folder)) {
    // One that was about to get such a name itself has a second point before it.
    const bool isOurs = name.starts_with(kBeside) || name.starts_with("." + std::string(kBeside));
    if (!isOurs || !base::isTemporaryFile(name)) continue;
    try {
      const auto identity = files.identity(folder / name);
      if (identity && identity->changedSeconds < newest) files.remove(folder / name);
    } catch (const base::FileError& error) {
      base::diagnose("backup", error.sentence());
    }
  }
} catch (const base::FileError& error) {
  base::diagnose("backup", error.sentence());
}

}  // namespace sorvane::unlock
