#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

#include "base/clock.h"
#include "base/files.h"
#include "base/secret_text.h"
#include "crypto/digest.h"

namespace sorvane::unlock {

/// BackupFile is the bytes of one backup file, wiped when it goes: a file without encryption is full of values.
/// Move-only. `digest` is what a preview shows, and what a restore goes by.
class BackupFile {
 public:
  explicit BackupFile(base::Bytes bytes) : bytes_(std::move(bytes)), digest_(crypto::sha256(bytes_)) {}
  BackupFile(BackupFile&&) = default;
  BackupFile& operator=(BackupFile&&) = delete;
  ~BackupFile() { base::wipe(bytes_.data(), bytes_.size()); }

  std::string_view text() const { return base::textOf(bytes_); }
  const crypto::Sha256Digest& digest() const { return digest_; }

 private:
  base::Bytes bytes_;
  crypto::Sha256Digest digest_;
};

/// Reads a file, through links. Throws BackupError: none there, no regular file, above 256 MB, changed while it was
/// read, or not readable.
BackupFile readBackupFile(const base::Files& files, const std::filesystem::path& path);

enum class ExistingFile { refuse, replace };

struct BackupDestination {
  std::filesystem::path path;
  ExistingFile existing = ExistingFile::refuse;
  /// The folder that holds the vault and its values; nothing is written into it or below, whichever way `path` leads
  /// there.
  std::filesystem::path supportFolder;
};

/// Throws BackupError when a backup may not be written there.
void requireBackupPlace(const BackupDestination& destination);

/// Writes the bytes into a file without a name, or beside the destination where there are no such files, reads them
/// back, puts them into place and reads them back there. A file that is to be replaced is kept until then and is put
/// back when that fails. After a failure nothing of the new file is left, or the sentence says that it is. `check` is
/// called before anything is put into place and may throw to stop. Throws BackupError.
void saveBackupFile(base::Files& files, const BackupDestination& destination, const base::SecretText& data,
                    const std::function<void()>& check = {});

/// How old a file is that no backup under way can have made.
inline constexpr std::chrono::hours kOldLeftover{1};

/// Removes what a kill left in a folder of files that were being saved, when they are old. What cannot be removed does
/// not stop the work.
void removeOldLeftovers(base::Files& files, const std::filesystem::path& folder, base::Date now);

}  // namespace sorvane::unlock
