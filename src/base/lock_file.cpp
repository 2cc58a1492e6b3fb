#include "base/lock_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <optional>
#include <string>
#include <system_error>

#include "base/lock_holder.h"
#include "base/system.h"

namespace sorvane::base {
namespace {

std::optional<pid_t> holderIn(int file) {
  std::array<char, 16> text{};
  const ssize_t size = ::pread(file, text.data(), text.size(), 0);
  pid_t pid = 0;
  if (size <= 0 || std::from_chars(text.data(), text.data() + size, pid).ec != std::errc() || pid <= 0) return {};
  return pid;
}

std::string heldSentence(int file, const std::filesystem::path& folder) {
  const auto pid = holderIn(file);
  const auto holder = pid ? processInfo(*pid) : std::nullopt;
  const std::string who =
      holder ? holder->name + " with process id " + std::to_string(*pid) : std::string("Another process");
  return who + " already uses the support folder " + folder.string() +
         ". Nothing was opened. Use that one, or stop it first.";
}

[[noreturn]] void failed(const std::filesystem::path& path, int number) {
  throw LockFileError("The lock file " + path.string() + " could not be made (" +
                      std::system_category().message(number) +
                      "). Nothing was opened. Check that the folder can be written to and that its disk has room.");
}

}  // namespace

LockFile::LockFile(const std::filesystem::path& path)
    : file_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
  if (!file_) failed(path, errno);
  while (::flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    if (errno == EWOULDBLOCK) throw LockFileError(heldSentence(file_.get(), path.parent_path()));
    failed(path, errno);
  }
  // For the sentence above and for a system that names no holder: the lock holds without it, also on a full disk.
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(file_.get(), 0) != 0 || ::pwrite(file_.get(), pid.data(), pid.size(), 0) < 0) return;
}

std::optional<pid_t> LockFile::holder(const std::filesystem::path& path) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!file) return {};
  const auto told = lockHolder(file.get());
  if (!told) return holderIn(file.get());
  return *told > 0 ? told : std::nullopt;
}

}  // namespace sorvane::base
