#pragma once

#include <sys/types.h>

#include <filesystem>

namespace sorvane::platform {

/// Whether `peer` is the application that was put down together with the program at `own`: beside it, in the bundle
/// beside it, or where installing puts both. Both paths are without links, as the kernel tells them.
bool isInstalledWith(const std::filesystem::path& own, const std::filesystem::path& peer);

/// The file that a process runs, without links; empty when the system does not say.
std::filesystem::path programOf(pid_t process);

}  // namespace sorvane::platform
