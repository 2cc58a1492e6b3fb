#include "proxy/ledger_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>
#include <vector>

#include "base/files.h"

namespace sorvane::proxy {
namespace {

constexpr std::size_t kPieceBytes = 65'536;

[[noreturn]] void fail(const std::string& what, const std::string& path) {
  const int number = errno;
  throw base::FileError("could not " + what + " " + path + " (" + std::system_category().message(number) + ")", number);
}

/// Lines puts pieces together to lines, each cut at kMostLineBytes.
class Lines {
 public:
  explicit Lines(const std::function<void(std::string_view)>& take) : take_(take) {}
  void feed(std::string_view piece) {
    while (!piece.empty()) {
      const std::size_t end = piece.find('\n');
      const bool whole = end != std::string_view::npos;
      const std::string_view part = piece.substr(0, whole ? end : piece.size());
      piece.remove_prefix(whole ? end + 1 : piece.size());
      if (whole && held_.empty()) {
        take_(part.substr(0, kMostLineBytes));
        begun_ = false;
        continue;
      }
      held_.append(part.substr(0, kMostLineBytes - held_.size()));
      begun_ = true;
      if (whole) finish();
    }
  }
  void finish() {
    if (!begun_) return;
    take_(held_);
    held_.clear();
    begun_ = false;
  }

 private:
  const std::function<void(std::string_view)>& take_;
  std::string held_;
  bool begun_ = false;
};

}  // namespace

OpenLedger openLedger(const std::filesystem::path& path) {
  // O_NONBLOCK: a pipe put in the file's place must not stop us.
  OpenLedger ledger{base::Descriptor(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)), 0};
  if (!ledger.file) {
    if (errno == ENOENT) return ledger;
    fail("read", path.string());
  }
  struct stat status {};
  if (::fstat(ledger.file.get(), &status) != 0) fail("look at", path.string());
  if (!S_ISREG(status.st_mode)) throw base::FileError(path.string() + " is not a regular file", EINVAL);
  if (status.st_uid != ::geteuid()) throw base::FileError(path.string() + " belongs to another user", EPERM);
  if ((status.st_mode & 0077) != 0 && ::fchmod(ledger.file.get(), 0600) != 0) fail("protect", path.string());
  ledger.size = static_cast<std::uint64_t>(status.st_size);
  return ledger;
}

void eachLine(const OpenLedger& ledger, const std::function<void(std::string_view)>& take) {
  if (!ledger.file) return;
  Lines lines(take);
  std::vector<char> piece(kPieceBytes);
  for (std::uint64_t at = 0; at < ledger.size;) {
    const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), ledger.size - at));
    const ssize_t got = ::pread(ledger.file.get(), piece.data(), want, static_cast<off_t>(at));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail("read", "the ledger");
    if (got == 0) break;
    lines.feed({piece.data(), static_cast<std::size_t>(got)});
    at += static_cast<std::uint64_t>(got);
  }
  lines.finish();
}

}  // namespace sorvane::proxy
