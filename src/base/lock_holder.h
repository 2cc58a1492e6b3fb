#pragma once

#include <sys/types.h>

#include <optional>

namespace sorvane::base {

/// Who holds the exclusive flock of an open file, as the system itself tells; 0: nobody that is seen from here. nullopt
/// when the system does not tell.
std::optional<pid_t> lockHolder(int file);

/// Whether a process that LockFile::holder named may be told a secret: it always may where the system itself tells who
/// holds a lock, and elsewhere when it runs the application that was installed together with this program.
bool isTrustedHolder(pid_t process);

}  // namespace sorvane::base
