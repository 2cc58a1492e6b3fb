#include "base/system.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/diagnostics.h"
#include "base/environment.h"
#include "base/lock_holder.h"
#include "base/open_descriptors.h"
#include "platform/macos/installed_program.h"
#include "platform/macos/process_record.h"

namespace sorvane::base {
namespace {

// What makes the dynamic loader, the allocator and the Objective-C run-time load or report, and the names of the C
// library's own that look elsewhere for names and zones.
constexpr std::array<std::string_view, 3> kLoaderPrefixes = {"DYLD_", "Malloc", "OBJC_"};
constexpr std::array<std::string_view, 6> kLoaderVariables = {"HOSTALIASES", "LOCALDOMAIN", "NLSPATH",
                                                              "PATH_LOCALE", "RES_OPTIONS", "TZDIR"};

bool isLoaderVariable(std::string_view entry) {
  const std::string_view name = entry.substr(0, entry.find('='));
  return std::ranges::any_of(kLoaderPrefixes, [&](std::string_view prefix) { return name.starts_with(prefix); }) ||
         std::ranges::find(kLoaderVariables, name) != kLoaderVariables.end();
}

std::filesystem::path inHome(const char* folder) {
  const char* const home = std::getenv("HOME");
  return home != nullptr && *home == '/' ? std::filesystem::path(home) / folder : std::filesystem::path();
}

}  // namespace

int syncToDisk(int fd) {
  // fsync leaves the bytes in the disk's own cache.
  if (::fcntl(fd, F_FULLFSYNC) == 0) return 0;
  // Network volumes and some foreign file systems do not take it.
  return errno == ENOTSUP || errno == EINVAL || errno == ENOTTY ? ::fsync(fd) : -1;
}
int syncDataToDisk(int fd) {
  return syncToDisk(fd);
}
timespec changeTime(const struct stat& status) {
  return status.st_ctimespec;
}
std::chrono::nanoseconds timeSinceBoot() {
  // Here, unlike elsewhere, this clock goes on while the computer sleeps.
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}
int renameWithoutReplacing(const char* from, const char* to) {
  return ::renamex_np(from, to, RENAME_EXCL);
}
int exchangeNames(const char* first, const char* second) {
  return ::renamex_np(first, second, RENAME_SWAP);
}
// There are no files without a name.
int openUnnamed(const char*) {
  errno = ENOTSUP;
  return -1;
}
int nameUnnamed(int, const char*) {
  errno = ENOTSUP;
  return -1;
}
std::size_t maxSocketPath() {
  return sizeof(sockaddr_un{}.sun_path);
}

std::optional<pid_t> lockHolder(int) {
  return std::nullopt;
}

bool isTrustedHolder(pid_t process) {
  return platform::isInstalledWith(programPath(), platform::programOf(process));
}

std::optional<PeerCredentials> peerCredentials(int socket) {
  PeerCredentials credentials;
  gid_t group = 0;
  if (::getpeereid(socket, &credentials.uid, &group) != 0) return std::nullopt;
  socklen_t size = sizeof credentials.pid;
  if (::getsockopt(socket, SOL_LOCAL, LOCAL_PEERPID, &credentials.pid, &size) != 0) credentials.pid = 0;
  return credentials;
}

std::optional<ProcessInfo> processInfo(pid_t pid) {
  return platform::processRecord(pid);
}

void hardenProcess() {
  ::ptrace(PT_DENY_ATTACH, 0, nullptr, 0);
  // The hard limit stays: commands that run for the owner may raise theirs again.
  rlimit core{};
  if (::getrlimit(RLIMIT_CORE, &core) == 0) {
    core.rlim_cur = 0;
    ::setrlimit(RLIMIT_CORE, &core);
  }
}

void startWithoutLoaderVariables(char** argv) {
  char** end = environ;
  while (*end != nullptr) ++end;
  char** const kept = std::remove_if(environ, end, [](const char* entry) { return isLoaderVariable(entry); });
  if (kept == end) return;
  *kept = nullptr;
  ::execv(programPath().c_str(), argv);
  diagnose("app", "could not start anew without the variables of the dynamic loader; what they loaded stays");
}

void closeInheritedDescriptors() {
  closeAbove(STDERR_FILENO);
  int null = 0;
  // The system gives the lowest number that is free.
  while (null >= 0 && null <= STDERR_FILENO) null = ::open("/dev/null", O_RDWR);
  if (null > STDERR_FILENO) ::close(null);
}

std::filesystem::path userConfigFolder() {
  return inHome("Library/Application Support");
}

std::filesystem::path dotConfigFolder() {
  return inHome(".config");
}

std::filesystem::path programPath() {
  return platform::programOf(::getpid());
}

std::filesystem::path defaultSupportFolder() {
  return inHome("Library/Application Support/sorvane");
}

}  // namespace sorvane::base
