#include "clients/config_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "base/descriptor.h"
#include "base/ids.h"
#include "base/system.h"
#include "clients/config_edit.h"

namespace sorvane::clients {
namespace {

/// How often an edit is done anew because the client wrote its file meanwhile.
constexpr int kMostAttempts = 5;
constexpr mode_t kNewFileMode = 0600;

[[noreturn]] void refuse(const std::filesystem::path& path, const std::string& reason) {
  throw ConfigFileError("The file " + path.string() + " " + reason +
                        ", so it was left alone. Nothing was changed in it.");
}

/// The file that a link stands for; the path itself when nothing is there yet.
std::filesystem::path withoutLinks(const std::filesystem::path& path) {
  const std::unique_ptr<char, decltype(&::free)> resolved(::realpath(path.c_str(), nullptr), &::free);
  if (resolved) return resolved.get();
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0) refuse(path, "is a link to nothing");
  const std::unique_ptr<char, decltype(&::free)> folder(::realpath(path.parent_path().c_str(), nullptr), &::free);
  return folder ? std::filesystem::path(folder.get()) / path.filename() : path;
}

std::string readAll(int fd, const std::filesystem::path& path) {
  std::string text;
  std::array<char, 65536> piece;
  for (;;) {
    const ssize_t got = ::read(fd, piece.data(), piece.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) refuse(path, std::string("could not be read (") + std::strerror(errno) + ")");
    if (got == 0) return text;
    text.append(piece.data(), static_cast<std::size_t>(got));
    if (text.size() > kMaxConfigBytes) refuse(path, "is larger than 4 MB");
  }
}

void writeAll(const base::Descriptor& file, std::string_view text, const std::filesystem::path& path) {
  while (!text.empty()) {
    const ssize_t written = ::write(file.get(), text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) refuse(path, std::string("could not be written (") + std::strerror(errno) + ")");
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

/// A new file beside the target that is gone again unless it was renamed.
class Beside {
 public:
  Beside(const std::filesystem::path& target, std::string_view text, mode_t mode)
      : path_(target.parent_path() / ("." + target.filename().string() + "." + base::randomHex(16) + ".tmp")) {
    const base::Descriptor file(::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) refuse(target, std::string("could not be written (") + std::strerror(errno) + ")");
    made_ = true;
    writeAll(file, text, target);
    if (::fchmod(file.get(), mode) != 0 || base::syncToDisk(file.get()) != 0) {
      refuse(target, std::string("could not be written (") + std::strerror(errno) + ")");
    }
  }
  ~Beside() {
    if (made_) ::unlink(path_.c_str());
  }
  Beside(const Beside&) = delete;
  Beside& operator=(const Beside&) = delete;

  void becomes(const std::filesystem::path& target) {
    if (::rename(path_.c_str(), target.c_str()) != 0) {
      refuse(target, std::string("could not be replaced (") + std::strerror(errno) + ")");
    }
    made_ = false;
  }

 private:
  std::filesystem::path path_;
  bool made_ = false;
};

void keepBackup(const ConfigFile& file) {
  const std::filesystem::path backup = file.path.string() + ".sorvane-backup";
  struct stat status {};
  if (::lstat(backup.c_str(), &status) == 0) return;
  Beside(backup, file.text, kNewFileMode).becomes(backup);
}

}  // namespace

std::optional<ConfigFile> readConfigFile(const std::filesystem::path& path) {
  ConfigFile file;
  file.path = withoutLinks(path);
  const base::Descriptor opened(::open(file.path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!opened) {
    if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
    refuse(path, std::string("could not be read (") + std::strerror(errno) + ")");
  }
  struct stat status {};
  if (::fstat(opened.get(), &status) != 0 || !S_ISREG(status.st_mode)) refuse(path, "is not a regular file");
  if (status.st_uid != ::geteuid()) refuse(path, "belongs to another user");
  file.mode = status.st_mode & 07777;
  file.text = readAll(opened.get(), path);
  return file;
}

bool updateConfigFile(const std::filesystem::path& path,
                      const std::function<std::optional<std::string>(const std::string& text)>& edit) {
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    const auto before = readConfigFile(path);
    const std::string text = before ? before->text : std::string();
    const auto after = edit(text);
    if (!after || (before && *after == text)) return false;
    const std::filesystem::path target = before ? before->path : withoutLinks(path);
    if (before && (before->mode & 0222) == 0) refuse(path, "is read-only");
    Beside fresh(target, *after, before ? before->mode : kNewFileMode);
    if (before) keepBackup(*before);
    // A client that runs may have written its file since it was read.
    const auto now = readConfigFile(path);
    if (now.has_value() != before.has_value() || (now && now->text != text)) continue;
    fresh.becomes(target);
    return true;
  }
  refuse(path, "is being written by another program all the time");
}

}  // namespace sorvane::clients
