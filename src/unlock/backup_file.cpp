#include "unlock/backup_file.h"

#include <cerrno>

#include "unlock/backup_envelope.h"
#include "unlock/backup_error.h"

namespace sorvane::unlock {
namespace fs = std::filesystem;

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

}  // namespace sorvane::unlock
