#include "apple/fake/processes.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <libproc.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/sysctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::atomic<int> tablesToGrow = 0;
std::map<pid_t, fake::Stranger> others;

struct Stat {
  char state = 0;
  pid_t parent = 0, group = 0;
  std::uint64_t startTicks = 0;
};

std::optional<Stat> statOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text);
  const std::size_t close = text.rfind(')');
  if (close == std::string::npos) return std::nullopt;
  std::istringstream fields(text.substr(close + 1));
  Stat stat;
  fields >> stat.state >> stat.parent >> stat.group;
  std::string skipped;
  for (int field = 6; field <= 21; ++field) fields >> skipped;
  fields >> stat.startTicks;
  return stat;
}

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  DIR* const open = ::opendir(folder.c_str());
  if (open == nullptr) return names;
  while (const dirent* entry = ::readdir(open)) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  ::closedir(open);
  return names;
}

bool isAskedFor(pid_t process, uint32_t type, uint32_t argument) {
  struct stat status {};
  if (type == PROC_UID_ONLY) {
    return ::stat(("/proc/" + std::to_string(process)).c_str(), &status) == 0 && status.st_uid == argument;
  }
  const auto stat = statOf(process);
  return stat && static_cast<uint32_t>(stat->group) == argument;
}

/// Answers as the calls of libproc do: the size without a buffer, otherwise as much as goes in.
template <typename Item>
int answer(const std::vector<Item>& items, void* buffer, int size) {
  const auto bytes = static_cast<int>(items.size() * sizeof(Item));
  if (buffer == nullptr) return tablesToGrow > 0 && tablesToGrow-- > 0 ? static_cast<int>(sizeof(Item)) : bytes;
  const int filled = std::min(bytes, size / static_cast<int>(sizeof(Item)) * static_cast<int>(sizeof(Item)));
  if (filled > 0) std::memcpy(buffer, items.data(), static_cast<std::size_t>(filled));
  return filled;
}

std::string linkOf(int process, int descriptor) {
  const std::string path = "/proc/" + std::to_string(process) + "/fd/" + std::to_string(descriptor);
  char text[64] = {};
  return ::readlink(path.c_str(), text, sizeof text - 1) > 0 ? text : std::string();
}

int listDescriptors(int process, void* buffer, int size) {
  std::vector<proc_fdinfo> open;
  for (const std::string& name : namesIn("/proc/" + std::to_string(process) + "/fd")) {
    const int fd = std::atoi(name.c_str());
    const std::string link = linkOf(process, fd);
    const int type = link.starts_with("socket:") ? PROX_FDTYPE_SOCKET
                     : link.starts_with("pipe:") ? PROX_FDTYPE_PIPE
                                                 : 0;
    open.push_back({fd, static_cast<uint32_t>(type)});
  }
  return answer(open, buffer, size);
}

/// Once, so that a process keeps the time of its start.
std::uint64_t bootMicroseconds() {
  static const std::uint64_t boot = [] {
    timespec now{}, up{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    ::clock_gettime(CLOCK_BOOTTIME, &up);
    return static_cast<std::uint64_t>((now.tv_sec - up.tv_sec) * 1'000'000 + (now.tv_nsec - up.tv_nsec) / 1000);
  }();
  return boot;
}

/// A line of /proc/net/tcp or, with the addresses of version 4 that it holds, of tcp6.
bool readSocket(const std::string& line, bool isSix, const std::string& inode, tcp_sockinfo& tcp) {
  std::istringstream fields(line);
  std::string number, local, remote, state, skipped, found;
  fields >> number >> local >> remote >> state;
  for (int i = 0; i < 5; ++i) fields >> skipped;
  fields >> found;
  if (found != inode) return false;
  const auto address = [&](const std::string& end) {
    const std::string digits = end.substr(0, end.find(':'));
    return static_cast<in_addr_t>(std::stoul(isSix ? digits.substr(24) : digits, nullptr, 16));
  };
  const auto port = [](const std::string& end) {
    return static_cast<int>(htons(static_cast<uint16_t>(std::stoul(end.substr(end.find(':') + 1), nullptr, 16))));
  };
  const bool isFour = !isSix || local.starts_with("0000000000000000FFFF0000");
  tcp.tcpsi_ini.insi_vflag = isFour ? INI_IPV4 : INI_IPV6;
  tcp.tcpsi_ini.insi_laddr.ina_46.i46a_addr4.s_addr = address(local);
  tcp.tcpsi_ini.insi_faddr.ina_46.i46a_addr4.s_addr = address(remote);
  tcp.tcpsi_ini.insi_lport = port(local);
  tcp.tcpsi_ini.insi_fport = port(remote);
  tcp.tcpsi_state = state == "0A" ? TSI_S_LISTEN : state == "07" ? TSI_S_CLOSED : TSI_S_ESTABLISHED;
  return true;
}

/// Both ends of a pipe have one number here and two names there.
int tellPipe(int process, int descriptor, void* buffer, int size) {
  const std::string link = linkOf(process, descriptor);
  if (!link.starts_with("pipe:[") || size < static_cast<int>(sizeof(pipe_fdinfo))) return 0;
  std::ifstream info("/proc/" + std::to_string(process) + "/fdinfo/" + std::to_string(descriptor));
  std::string name, position, flags;
  info >> name >> position >> name >> flags;
  pipe_fdinfo told{};
  told.pipeinfo.pipe_handle = std::stoull(link.substr(6)) * 2 + (flags.ends_with('1') ? 1 : 0);
  std::memcpy(buffer, &told, sizeof told);
  return sizeof told;
}

// One process at a time is started by a supervisor.
const posix_spawnattr_t* closing = nullptr;

template <typename Function>
Function systems(Function, const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace fake {

std::set<pid_t> childrenOf(pid_t process) {
  std::set<pid_t> children;
  const std::string folder = "/proc/" + std::to_string(process) + "/task";
  for (const std::string& task : namesIn(folder)) {
    std::ifstream file(folder + "/" + task + "/children");
    for (pid_t child = 0; file >> child;) children.insert(child);
  }
  return children;
}

bool isZombie(pid_t process) {
  const auto stat = statOf(process);
  return stat && stat->state == 'Z';
}

void setStrangers(std::map<pid_t, Stranger> strangers) {
  others = std::move(strangers);
}

void growNextTables(int count) {
  tablesToGrow = count;
}

}  // namespace fake

int proc_listpids(uint32_t type, uint32_t argument, void* buffer, int size) {
  std::vector<pid_t> found;
  if (type == PROC_PPID_ONLY) {
    const auto children = fake::childrenOf(static_cast<pid_t>(argument));
    found.assign(children.begin(), children.end());
    return answer(found, buffer, size);
  }
  for (const std::string& name : namesIn("/proc")) {
    const pid_t process = std::atoi(name.c_str());
    if (process > 0 && isAskedFor(process, type, argument)) found.push_back(process);
  }
  return answer(found, buffer, size);
}

int proc_pidinfo(int process, int flavor, uint64_t, void* buffer, int size) {
  if (flavor == PROC_PIDLISTFDS) return listDescriptors(process, buffer, size);
  const auto stat = statOf(process);
  if (!stat || stat->state == 'Z' || size < static_cast<int>(sizeof(proc_bsdinfo))) {
    errno = ESRCH;
    return 0;
  }
  proc_bsdinfo told{};
  told.pbi_pid = static_cast<uint32_t>(process);
  told.pbi_ppid = static_cast<uint32_t>(stat->parent);
  told.pbi_pgid = static_cast<uint32_t>(stat->group);
  const std::uint64_t started = bootMicroseconds() + stat->startTicks * 10'000;
  told.pbi_start_tvsec = started / 1'000'000;
  told.pbi_start_tvusec = started % 1'000'000;
  // Full, as a field that is not ended.
  std::memset(told.pbi_name, 'n', sizeof told.pbi_name);
  std::memcpy(buffer, &told, sizeof told);
  return sizeof told;
}

int sysctl(int* name, unsigned int count, void* old, size_t* size, void*, size_t) {
  if (count != 4 || name[0] != CTL_KERN || name[1] != KERN_PROC || name[2] != KERN_PROC_PID) {
    errno = ENOENT;
    return -1;
  }
  kinfo_proc told{};
  const pid_t process = told.kp_proc.p_pid = name[3];
  const auto stat = statOf(process);
  const auto stranger = others.find(process);
  if (*size < sizeof told || (!stat && stranger == others.end())) {
    *size = 0;
    return 0;
  }
  told.kp_eproc.e_ppid = stat ? stat->parent : stranger->second.parent;
  const std::uint64_t started = bootMicroseconds() + (stat ? stat->startTicks * 10'000 : 0);
  told.kp_proc.p_starttime = {static_cast<time_t>(started / 1'000'000), static_cast<suseconds_t>(started % 1'000'000)};
  (stat ? std::string("short") : stranger->second.name).copy(told.kp_proc.p_comm, MAXCOMLEN);
  *size = sizeof told;
  std::memcpy(old, &told, sizeof told);
  return 0;
}

int proc_pidpath(int process, void* buffer, uint32_t size) {
  const std::string link = "/proc/" + std::to_string(process) + "/exe";
  return static_cast<int>(std::max<ssize_t>(::readlink(link.c_str(), static_cast<char*>(buffer), size), 0));
}

int proc_pidfdinfo(int process, int descriptor, int flavor, void* buffer, int size) {
  if (flavor == PROC_PIDFDPIPEINFO) return tellPipe(process, descriptor, buffer, size);
  const std::string link = linkOf(process, descriptor);
  if (!link.starts_with("socket:[") || size < static_cast<int>(sizeof(socket_fdinfo))) return 0;
  const std::string inode = link.substr(8, link.size() - 9);
  socket_fdinfo told{};
  for (const bool isSix : {false, true}) {
    std::ifstream table(isSix ? "/proc/net/tcp6" : "/proc/net/tcp");
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
      if (!readSocket(line, isSix, inode, told.psi.soi_proto.pri_tcp)) continue;
      told.psi.soi_kind = SOCKINFO_TCP;
      break;
    }
  }
  std::memcpy(buffer, &told, sizeof told);
  return sizeof told;
}

// The C library's own refuses the flag of macOS.
int posix_spawnattr_setflags(posix_spawnattr_t* attributes, short flags) noexcept {
  if ((flags & POSIX_SPAWN_CLOEXEC_DEFAULT) != 0) closing = attributes;
  return systems(&posix_spawnattr_setflags, "posix_spawnattr_setflags")(
      attributes, static_cast<short>(flags & ~POSIX_SPAWN_CLOEXEC_DEFAULT));
}

int posix_spawn(pid_t* process, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const words[], char* const environment[]) {
  if (attributes != nullptr && closing == attributes) {
    // After all other actions, so that what those opened stays.
    ::posix_spawn_file_actions_addclosefrom_np(const_cast<posix_spawn_file_actions_t*>(actions), 3);
  }
  return systems(&posix_spawn, "posix_spawn")(process, path, actions, attributes, words, environment);
}
