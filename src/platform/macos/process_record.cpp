#include "platform/macos/process_record.h"

#include <libproc.h>
#include <sys/sysctl.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>

namespace sorvane::platform {
namespace {

/// The text of a field that is not ended where it is full.
template <std::size_t size>
std::string textIn(const char (&field)[size]) {
  return {field, std::find(field, field + size, '\0')};
}

unsigned long long microseconds(unsigned long long seconds, unsigned long long rest) {
  return seconds * 1'000'000 + rest;
}

}  // namespace

std::optional<base::ProcessInfo> processRecord(pid_t pid) {
  std::array<int, 4> question{CTL_KERN, KERN_PROC, KERN_PROC_PID, pid};
  kinfo_proc record{};
  std::size_t size = sizeof record;
  // A process that is not there is an answer of no bytes.
  if (::sysctl(question.data(), question.size(), &record, &size, nullptr, 0) != 0 || size != sizeof record ||
      record.kp_proc.p_pid != pid) {
    return std::nullopt;
  }
  base::ProcessInfo info;
  info.pid = pid;
  info.parent = record.kp_eproc.e_ppid;
  info.name = textIn(record.kp_proc.p_comm);
  info.startedAt = microseconds(static_cast<unsigned long long>(record.kp_proc.p_starttime.tv_sec),
                                static_cast<unsigned long long>(record.kp_proc.p_starttime.tv_usec));
  // Its longer name, unless the number has gone to another process meanwhile.
  proc_bsdinfo own{};
  constexpr int kSize = sizeof own;
  if (::proc_pidinfo(pid, PROC_PIDTBSDINFO, 0, &own, kSize) == kSize && own.pbi_name[0] != '\0' &&
      microseconds(own.pbi_start_tvsec, own.pbi_start_tvusec) == info.startedAt) {
    info.name = textIn(own.pbi_name);
  }
  return info;
}

}  // namespace sorvane::platform
