#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace sorvane::base {

// The few things that differ between the systems. Declared here, defined in platform/linux/system.cpp and its macOS
// twin.

/// Flushes a file or folder to the disk itself; 0, or -1 with errno.
int syncToDisk(int fd);
/// The same for the data of a file, without metadata that a reader does not need.
int syncDataToDisk(int fd);
/// The change time of a file's status record.
timespec changeTime(const struct stat& status);

/// Time since the computer started, the time it slept included.
std::chrono::nanoseconds timeSinceBoot();

/// Renames within one file system unless `to` exists (EEXIST); 0, or -1 with errno.
int renameWithoutReplacing(const char* from, const char* to);
/// Swaps two names of one file system; 0, or -1 with errno where there is no such call.
int exchangeNames(const char* first, const char* second);
/// Opens a file without a name in a folder, mode 0600; a descriptor, or -1 with errno where there are no such files.
int openUnnamed(const char* folder);
/// Gives such a file a name that nothing has (EEXIST); 0, or -1 with errno.
int nameUnnamed(int file, const char* name);

/// Bytes of a Unix-domain socket path, the closing zero included, that the system accepts.
std::size_t maxSocketPath();

/// Who is at the other end of a Unix-domain socket. `pid` is 0 when the system does not say.
struct PeerCredentials {
  pid_t pid = 0;
  uid_t uid = 0;
};
/// nullopt when the system does not answer; such a peer is treated as a stranger.
std::optional<PeerCredentials> peerCredentials(int socket);

/// A live process as the owner should see it. `startedAt` is the system's own count and tells a reused pid from the old
/// one.
struct ProcessInfo {
  pid_t pid = 0;
  pid_t parent = 0;
  std::string name;
  unsigned long long startedAt = 0;
};
/// nullopt for a process that is gone.
std::optional<ProcessInfo> processInfo(pid_t pid);
/// The process and its ancestors, nearest first, at most 16, without process 1.
std::vector<ProcessInfo> processChain(pid_t pid);

/// Makes this process unreadable to others of the same user and keeps it from leaving core files. Called first in main.
void hardenProcess();

/// Starts this program anew, as the same process, when its environment holds variables by which the dynamic loader and
/// the C library load other code or look elsewhere for names (LD_*, GCONV_PATH, GLIBC_TUNABLES and their like); the new
/// start has none of them. They act before main, so that taking them out here alone would come too late. Returns when
/// there are none, or, with a line on standard error, when the system refuses the start. Called before any thread.
void startWithoutLoaderVariables(char** argv);

/// Closes every descriptor above the standard three, and opens /dev/null for a standard one that is closed, so that no
/// file gets its number later. Called before anything is opened.
void closeInheritedDescriptors();

/// The folder for the user's configuration of programs, such as "~/.config". Empty without a home folder.
std::filesystem::path userConfigFolder();

/// The same for programs that keep it in one place on every system: "~/.config", whatever the system's own place is.
std::filesystem::path dotConfigFolder();

/// The running program's own file, without links. Empty when the system does not say.
std::filesystem::path programPath();

/// The folder for the application's data when nothing else is said, such as "~/.local/share/sorvane". Empty when the
/// user has no home folder.
std::filesystem::path defaultSupportFolder();

}  // namespace sorvane::base
