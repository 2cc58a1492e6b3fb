#pragma once

#include <filesystem>
#include <functional>
#include <string>

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
  /// The folder that holds the vault; nothing is written into it or below, whichever way `path` leads there.
  std::filesystem::path vaultFolder;
};

/// Throws BackupError when a backup may not be written there.
void requireBackupPlace(const BackupDestination& destination);

/// Writes the bytes beside the destination, reads them back, moves them into place and reads them back there. Until
/// then a file that is to be replaced stays as it is. After a failure nothing of the new file is left. `check` is
/// called before the move and may throw to stop. Throws BackupError.
void saveBackupFile(base::Files& files, const BackupDestination& destination, const base::SecretText& data,
                    const std::function<void()>& check = {});

}  // namespace sorvane::unlock
