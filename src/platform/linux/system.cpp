#include "base/system.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>

#include "base/diagnostics.h"
#include "base/lock_holder.h"
#include "base/open_descriptors.h"

namespace sorvane::base {
namespace {

// What the C library itself ignores in programs that run with another user's rights, TMPDIR apart: commands get that.
constexpr std::array<std::string_view, 12> kLoaderVariables = {
    "GCONV_PATH", "GETCONF_DIR", "GLIBC_TUNABLES", "HOSTALIASES",      "LOCALDOMAIN", "LOCPATH",
    "NIS_PATH",   "NLSPATH",     "MALLOC_TRACE",   "RESOLV_HOST_CONF", "RES_OPTIONS", "TZDIR",
};

bool isLoaderVariable(std::string_view entry) {
  const std::string_view name = entry.substr(0, entry.find('='));
  // A bus of somebody's own would bring a polkit and a login manager of its own.
  if (name == "DBUS_SYSTEM_BUS_ADDRESS") return true;
  return name.starts_with("LD_") || std::ranges::find(kLoaderVariables, name) != kLoaderVariables.end();
}

}  // namespace

int syncToDisk(int fd) {
  return ::fsync(fd);
}
int syncDataToDisk(int fd) {
  return ::fdatasync(fd);
}
timespec changeTime(const struct stat& status) {
  return status.st_ctim;
}
std::chrono::nanoseconds timeSinceBoot() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}
int renameWithoutReplacing(const char* from, const char* to) {
  return ::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
}
int exchangeNames(const char* first, const char* second) {
  return ::renameat2(AT_FDCWD, first, AT_FDCWD, second, RENAME_EXCHANGE);
}
int openUnnamed(const char* folder) {
  return ::open(folder, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
}
int nameUnnamed(int file, const char* name) {
  // open(2), under O_TMPFILE: without the capability that AT_EMPTY_PATH asks for, the way leads through /proc.
  const std::string open = "/proc/self/fd/" + std::to_string(file);
  return ::linkat(AT_FDCWD, open.c_str(), AT_FDCWD, name, AT_SYMLINK_FOLLOW);
}
std::size_t maxSocketPath() {
  return sizeof(sockaddr_un{}.sun_path);
}

namespace {

/// The line of a table that begins with `key`, without it; empty when there is none.
std::string valueIn(const std::string& table, const std::string& key) {
  std::ifstream file(table);
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(key)) return line.substr(key.size());
  }
  return {};
}

/// "major:minor" of the file system that `file` lies on, as mountinfo has it: some file systems tell another number
/// for each of their files.
std::string deviceOf(int file) {
  std::istringstream text(valueIn("/proc/self/fdinfo/" + std::to_string(file), "mnt_id:"));
  std::string mount, parent, device;
  text >> mount;
  if (mount.empty()) return {};
  std::istringstream(valueIn("/proc/self/mountinfo", mount + " ")) >> parent >> device;
  return device;
}

}  // namespace

std::optional<pid_t> lockHolder(int file) {
  struct stat status {};
  const std::string device = deviceOf(file);
  unsigned major = 0, minor = 0;
  char colon = 0;
  std::istringstream(device) >> major >> colon >> minor;
  std::ifstream locks("/proc/locks");
  if (!locks || colon != ':' || ::fstat(file, &status) != 0) return std::nullopt;
  // proc_locks(5): "1: FLOCK ADVISORY WRITE 708 08:01:3604 0 EOF"; one that waits has "->" behind the number.
  std::ostringstream wanted;
  wanted << std::hex;
  for (const unsigned half : {major, minor}) wanted << (half < 0x10 ? "0" : "") << half << ':';
  wanted << std::dec << status.st_ino;
  for (std::string line; std::getline(locks, line);) {
    std::istringstream fields(line);
    std::string number, kind, mode, access, place;
    pid_t pid = 0;
    if (!(fields >> number >> kind >> mode >> access >> pid >> place)) continue;
    if (kind == "FLOCK" && access == "WRITE" && place == wanted.str()) return pid > 0 ? pid : 0;
  }
  return 0;
}

bool isTrustedHolder(pid_t) {
  return true;
}

std::optional<PeerCredentials> peerCredentials(int socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return std::nullopt;
  return PeerCredentials{credentials.pid, credentials.uid};
}

std::optional<ProcessInfo> processInfo(pid_t pid) {
  // proc_pid_stat(5): pid (comm) state ppid … with the start time as field 22. The name may hold spaces and
  // parentheses.
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  const std::string text((std::istreambuf_iterator<char>(file)), {});
  const std::size_t open = text.find('('), close = text.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close < open) return std::nullopt;
  ProcessInfo info;
  info.pid = pid;
  info.name = text.substr(open + 1, close - open - 1);
  std::size_t at = close + 1;
  for (int field = 3; field <= 22; ++field) {
    const std::size_t start = text.find_first_not_of(' ', at);
    if (start == std::string::npos) return std::nullopt;
    at = text.find(' ', start);
    if (at == std::string::npos) at = text.size();
    if (field == 4) std::from_chars(text.data() + start, text.data() + at, info.parent);
    if (field == 22) std::from_chars(text.data() + start, text.data() + at, info.startedAt);
  }
  return info;
}

void hardenProcess() {
  ::prctl(PR_SET_DUMPABLE, 0);
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
  // By its path, so that the process keeps its name; by the link when the file was replaced meanwhile.
  ::execv(programPath().c_str(), argv);
  ::execv("/proc/self/exe", argv);
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
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config != nullptr && *config == '/') return config;
  if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') {
    return std::filesystem::path(home) / ".config";
  }
  return {};
}

std::filesystem::path dotConfigFolder() {
  return userConfigFolder();
}

std::filesystem::path programPath() {
  std::error_code unknown;
  const auto path = std::filesystem::read_symlink("/proc/self/exe", unknown);
  return unknown ? std::filesystem::path() : path;
}

std::filesystem::path defaultSupportFolder() {
  // XDG base directories: a relative XDG_DATA_HOME is to be ignored.
  if (const char* data = std::getenv("XDG_DATA_HOME"); data != nullptr && *data == '/') {
    return std::filesystem::path(data) / "sorvane";
  }
  if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') {
    return std::filesystem::path(home) / ".local/share/sorvane";
  }
  return {};
}

}  // namespace sorvane::base
