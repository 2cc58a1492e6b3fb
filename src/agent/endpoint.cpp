#include "agent/endpoint.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/system.h"

namespace sorvane::agent {
namespace {

constexpr std::uint64_t kMaxPublishedBytes = 64 * 1024;

/// Sets the process umask for a scope. Other threads see it too: nothing that they make meanwhile is wider than it
/// should be.
class UmaskFor {
 public:
  explicit UmaskFor(mode_t mask) : earlier_(::umask(mask)) {}
  ~UmaskFor() { ::umask(earlier_); }
  UmaskFor(const UmaskFor&) = delete;
  UmaskFor& operator=(const UmaskFor&) = delete;

 private:
  const mode_t earlier_;
};

Listener failed(const char* step, int number) {
  Listener listener;
  listener.failure = std::string(step) + " failed errno=" + std::to_string(number);
  return listener;
}

}  // namespace

std::optional<SocketIdentity> socketAt(const std::filesystem::path& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) return std::nullopt;
  return SocketIdentity{status.st_dev, status.st_ino};
}

Listener openListener(const std::filesystem::path& path) {
  const UmaskFor mask(077);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string text = path.string();
  if (text.size() + 1 > base::maxSocketPath()) return failed("bind", ENAMETOOLONG);
  std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
  ::unlink(text.c_str());
  Listener listener;
  listener.socket.reset(::socket(AF_UNIX, SOCK_STREAM, 0));
  if (!listener.socket) return failed("socket", errno);
  ::fcntl(listener.socket.get(), F_SETFD, FD_CLOEXEC);
  if (::bind(listener.socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return failed("bind", errno);
  }
  ::chmod(text.c_str(), 0600);
  if (const auto identity = socketAt(path)) listener.identity = *identity;
  if (::listen(listener.socket.get(), kListenBacklog) != 0) return failed("listen", errno);
  return listener;
}

bool PublishedFile::publish(const AgentInfo& info) {
  bytes_ = encodeInfo(info);
  identity_.reset();
  try {
    identity_ = files_.writeAtomically(path_, bytes_.bytes());
    return true;
  } catch (const base::FileError&) {
    return false;
  }
}

bool PublishedFile::isIntact() {
  try {
    const auto now = files_.identity(path_);
    if (!now) return false;
    if (now == identity_) return true;
    // Touched or replaced: the bytes decide.
    const auto contents = files_.read(path_, kMaxPublishedBytes);
    if (!contents || !bytes_.sameAs(base::textOf(contents->bytes))) return false;
    identity_ = contents->identity;
    return true;
  } catch (const base::FileError&) {
    return false;
  }
}

void PublishedFile::withdraw() {
  bytes_ = {};
  identity_.reset();
  try {
    files_.remove(path_);
  } catch (const base::FileError&) {
    // A folder that is gone or read-only keeps what it has; its token opens nothing any more.
  }
}

}  // namespace sorvane::agent
