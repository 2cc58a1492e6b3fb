#pragma once

#include <libproc.h>
#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace sorvane::platform {

// The system's tables of processes and descriptors, whole. Empty when it does not answer, as for another user's
// process, or when a table grows faster than it is read.

/// For one of libproc's questions, such as PROC_PPID_ONLY with a parent.
std::vector<pid_t> listProcesses(std::uint32_t question, std::uint32_t argument);
std::vector<proc_fdinfo> listDescriptors(pid_t process);

}  // namespace sorvane::platform
