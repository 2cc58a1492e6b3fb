#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/secret_text.h"

namespace sorvane::base {

/// FileError is a refused or failed file operation; `number` is the system's errno.
class FileError : public Error {
 public:
  FileError(const std::string& sentence, int number) : Error(sentence), number_(number) {}
  int number() const { return number_; }

 private:
  int number_;
};

/// FileIdentity tells whether a file is still the one that was read: a replaced or rewritten file differs in one of
/// these.
struct FileIdentity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  std::int64_t changedSeconds = 0;
  std::int64_t changedNanoseconds = 0;
  bool operator==(const FileIdentity&) const = default;
};

/// Files is the file system as the vault and its neighbours use it. A test puts a failing one in its place. Every file
/// is made with mode 0600 and every folder with 0700. Failures are FileError. Safe from any thread.
class Files {
 public:
  virtual ~Files() = default;

  struct Contents {
    Bytes bytes;
    FileIdentity identity;  ///< of the very file that was read
  };

  /// The whole file, or nullopt when there is none. Refuses anything but a regular file. `limit` bounds the size in
  /// bytes.
  virtual std::optional<Contents> read(const std::filesystem::path& path, std::uint64_t limit = kNoLimit) const = 0;
  /// The identity of the regular file at `path`, or nullopt when there is none. Links are not followed.
  virtual std::optional<FileIdentity> identity(const std::filesystem::path& path) const = 0;
  /// Replaces the file as a whole: temporary file beside it, synced, renamed over it, folder synced. When it throws,
  /// the old file is still there.
  virtual FileIdentity writeAtomically(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) = 0;
  /// Adds `bytes` at the end with one write and syncs the data; makes the file when there is none. On failure the file
  /// is cut back to its earlier size.
  virtual void append(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) = 0;
  /// Removes a file; one that does not exist is no failure. The folder is synced.
  virtual void remove(const std::filesystem::path& path) = 0;
  /// Moves a file within one file system, replacing the target, and syncs the folder of the target.
  virtual void rename(const std::filesystem::path& from, const std::filesystem::path& to) = 0;
  /// Makes the folder (its parent must exist); an existing one is no failure. The parent is synced.
  virtual void makeFolder(const std::filesystem::path& path) = 0;
  /// Names in a folder, sorted; a missing folder is empty.
  virtual std::vector<std::string> list(const std::filesystem::path& path) const = 0;

  /// UnnamedFile has bytes and no name yet: whatever ends the process leaves nothing of it.
  class UnnamedFile {
   public:
    virtual ~UnnamedFile() = default;
    /// All of it, as the file system gives it back.
    virtual Bytes read() const = 0;
    /// Gives it a name that nothing has; FileError EEXIST when something does. The folder is not synced.
    virtual void name(const std::filesystem::path& path) = 0;
  };
  // What not every file system can do; one that cannot, does as these do.

  /// A file without a name in the folder, written and synced; null where there are no such files.
  virtual std::unique_ptr<UnnamedFile> writeUnnamed(const std::filesystem::path& folder,
                                                    std::span<const std::uint8_t> bytes);
  /// Swaps two files within one file system; false where that cannot be done. The folder is not synced.
  virtual bool exchange(const std::filesystem::path& first, const std::filesystem::path& second);
  /// Moves a file within one file system to a name that nothing has; FileError EEXIST when something does. The folder
  /// is not synced, so that whoever calls knows after a failure that nothing was moved.
  virtual void moveToNew(const std::filesystem::path& from, const std::filesystem::path& to);
  /// Makes what was named, swapped or moved in a folder last.
  virtual void syncFolder(const std::filesystem::path& folder);

  static constexpr std::uint64_t kNoLimit = UINT64_MAX;
  /// Names of the temporary files of writeAtomically: "." + name + "." + 16 hexadecimal digits + this.
  static constexpr std::string_view kTemporarySuffix = ".tmp";
};

/// SystemFiles is the real file system.
class SystemFiles final : public Files {
 public:
  std::optional<Contents> read(const std::filesystem::path& path, std::uint64_t limit = kNoLimit) const override;
  std::optional<FileIdentity> identity(const std::filesystem::path& path) const override;
  FileIdentity writeAtomically(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) override;
  void append(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) override;
  void remove(const std::filesystem::path& path) override;
  void rename(const std::filesystem::path& from, const std::filesystem::path& to) override;
  void makeFolder(const std::filesystem::path& path) override;
  std::vector<std::string> list(const std::filesystem::path& path) const override;
  std::unique_ptr<UnnamedFile> writeUnnamed(const std::filesystem::path& folder,
                                            std::span<const std::uint8_t> bytes) override;
  bool exchange(const std::filesystem::path& first, const std::filesystem::path& second) override;
  void moveToNew(const std::filesystem::path& from, const std::filesystem::path& to) override;
  void syncFolder(const std::filesystem::path& folder) override;
};

}  // namespace sorvane::base
