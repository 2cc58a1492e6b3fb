#pragma once

#include <sys/types.h>

#include <optional>

namespace sorvane::base {

/// Who holds the exclusive flock of an open file, as the system itself tells; 0: nobody that is seen from here. nullopt
/// when the system does not tell.
std::optional<pid_t> lockHolder(int file);

}  // namespace sorvane::base
