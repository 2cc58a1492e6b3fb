#include "base/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <system_error>

#include "base/descriptor.h"
#include "base/ids.h"
#include "base/system.h"

namespace sorvane::base {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string& what, const fs::path& path) {
  const int number = errno;
  throw FileError("could not " + what + " " + path.string() + " (" + std::system_category().message(number) + ")",
                  number);
}

FileIdentity identityOf(const struct stat& status) {
  const timespec changed = changeTime(status);
  return {static_cast<std::uint64_t>(status.st_dev), static_cast<std::uint64_t>(status.st_ino),
          static_cast<std::uint64_t>(status.st_size), static_cast<std::int64_t>(changed.tv_sec),
          static_cast<std::int64_t>(changed.tv_nsec)};
}

void writeAll(int fd, std::span<const std::uint8_t> bytes, const fs::path& path) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) fail("write", path);
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
}

/// At most `size` bytes, from the start.
Bytes readAll(int fd, std::size_t size, const fs::path& path) {
  Bytes bytes(size);
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t got = ::pread(fd, bytes.data() + filled, bytes.size() - filled, static_cast<off_t>(filled));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail("read", path);
    if (got == 0) break;
    filled += static_cast<std::size_t>(got);
  }
  bytes.resize(filled);
  return bytes;
}

void syncNames(const fs::path& folder) {
  const Descriptor handle(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!handle) fail("open the folder", folder);
  if (syncToDisk(handle.get()) != 0) fail("sync the folder", folder);
}

/// TemporaryFile is removed unless it was moved into place.
class TemporaryFile {
 public:
  explicit TemporaryFile(const fs::path& destination)
      : path_(destination.parent_path() /
              ("." + destination.filename().string() + "." + randomHex(16) + std::string(Files::kTemporarySuffix))),
        file_(::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)) {
    if (!file_) fail("create", path_);
  }
  ~TemporaryFile() {
    if (file_) ::unlink(path_.c_str());
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  int fd() const { return file_.get(); }
  void moveTo(const fs::path& destination) {
    if (::rename(path_.c_str(), destination.c_str()) != 0) fail("replace", destination);
    file_.reset();
  }

 private:
  fs::path path_;
  Descriptor file_;
};

/// Whether a call failed because the system or the file system has none of its kind.
bool isUnsupported(int number) {
  return number == EINVAL || number == ENOSYS || number == EOPNOTSUPP || number == ENOTSUP || number == EISDIR;
}

class SystemUnnamedFile final : public Files::UnnamedFile {
 public:
  SystemUnnamedFile(Descriptor file, fs::path folder) : file_(std::move(file)), folder_(std::move(folder)) {}
  Bytes read() const override {
    struct stat status {};
    if (::fstat(file_.get(), &status) != 0) fail("read a new file in", folder_);
    return readAll(file_.get(), static_cast<std::size_t>(status.st_size), folder_);
  }
  void name(const fs::path& path) override {
    if (nameUnnamed(file_.get(), path.c_str()) != 0) fail("create", path);
  }

 private:
  Descriptor file_;
  fs::path folder_;
};

}  // namespace

std::unique_ptr<Files::UnnamedFile> Files::writeUnnamed(const fs::path&, std::span<const std::uint8_t>) {
  return nullptr;
}

bool Files::exchange(const fs::path&, const fs::path&) {
  return false;
}

void Files::moveToNew(const fs::path& from, const fs::path& to) {
  if (identity(to)) throw FileError("there is a file named " + to.string() + " already", EEXIST);
  rename(from, to);
}

void Files::syncFolder(const fs::path&) {}

std::optional<Files::Contents> SystemFiles::read(const fs::path& path, std::uint64_t limit) const {
  // O_NONBLOCK: a pipe put in the file's place must not stop us.
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) {
    if (errno == ENOENT) return std::nullopt;
    fail("read", path);
  }
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) fail("read", path);
  if (!S_ISREG(status.st_mode)) throw FileError(path.string() + " is not a regular file", EINVAL);
  if (static_cast<std::uint64_t>(status.st_size) > limit) throw FileError(path.string() + " is too large", EFBIG);
  return Contents{readAll(file.get(), static_cast<std::size_t>(status.st_size), path), identityOf(status)};
}

std::optional<FileIdentity> SystemFiles::identity(const fs::path& path) const {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
    fail("look at", path);
  }
  if (!S_ISREG(status.st_mode)) throw FileError(path.string() + " is not a regular file", EINVAL);
  return identityOf(status);
}

FileIdentity SystemFiles::writeAtomically(const fs::path& path, std::span<const std::uint8_t> bytes) {
  TemporaryFile temporary(path);
  if (::fchmod(temporary.fd(), 0600) != 0) fail("protect", path);
  writeAll(temporary.fd(), bytes, path);
  if (syncToDisk(temporary.fd()) != 0) fail("sync", path);
  temporary.moveTo(path);
  syncNames(path.parent_path());
  const auto now = identity(path);
  if (!now) throw FileError(path.string() + " vanished after it was written", ENOENT);
  return *now;
}

void SystemFiles::append(const fs::path& path, std::span<const std::uint8_t> bytes) {
  bool created = false;
  Descriptor file(::open(path.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file && errno == ENOENT) {
    file.reset(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    created = true;
  }
  if (!file) fail("append to", path);
  struct stat status {};
  if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    throw FileError(path.string() + " is not a regular file", EINVAL);
  }
  try {
    writeAll(file.get(), bytes, path);
    if (syncDataToDisk(file.get()) != 0) fail("sync", path);
  } catch (...) {
    [[maybe_unused]] const int cut = ::ftruncate(file.get(), status.st_size);
    throw;
  }
  if (created) syncNames(path.parent_path());
}

void SystemFiles::remove(const fs::path& path) {
  if (::unlink(path.c_str()) != 0) {
    if (errno == ENOENT) return;
    fail("remove", path);
  }
  syncNames(path.parent_path());
}

void SystemFiles::rename(const fs::path& from, const fs::path& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) fail("move", from);
  syncNames(to.parent_path());
}

void SystemFiles::makeFolder(const fs::path& path) {
  if (::mkdir(path.c_str(), 0700) != 0) {
    if (errno == EEXIST) return;
    fail("create the folder", path);
  }
  syncNames(path.parent_path());
}

std::vector<std::string> SystemFiles::list(const fs::path& path) const {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(path.c_str()), &::closedir);
  if (!folder) {
    if (errno == ENOENT) return {};
    fail("list", path);
  }
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(folder.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::unique_ptr<Files::UnnamedFile> SystemFiles::writeUnnamed(const fs::path& folder,
                                                              std::span<const std::uint8_t> bytes) {
  Descriptor file(openUnnamed(folder.c_str()));
  if (!file && isUnsupported(errno)) return nullptr;
  if (!file) fail("create a file in", folder);
  if (::fchmod(file.get(), 0600) != 0) fail("protect a file in", folder);
  writeAll(file.get(), bytes, folder);
  if (syncToDisk(file.get()) != 0) fail("sync a file in", folder);
  return std::make_unique<SystemUnnamedFile>(std::move(file), folder);
}

bool SystemFiles::exchange(const fs::path& first, const fs::path& second) {
  if (exchangeNames(first.c_str(), second.c_str()) == 0) return true;
  if (isUnsupported(errno)) return false;
  fail("swap", second);
}

void SystemFiles::moveToNew(const fs::path& from, const fs::path& to) {
  if (renameWithoutReplacing(from.c_str(), to.c_str()) == 0) return;
  if (!isUnsupported(errno)) fail("move", from);
  // The name is taken first, since nobody else can have it then; what is replaced is that empty file.
  const Descriptor taken(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!taken) fail("create", to);
  if (::rename(from.c_str(), to.c_str()) == 0) return;
  const int number = errno;
  ::unlink(to.c_str());
  errno = number;
  fail("move", from);
}

void SystemFiles::syncFolder(const fs::path& folder) {
  syncNames(folder);
}

}  // namespace sorvane::base
