#pragma once

namespace sorvane::platform {

/// As ForkedHost::Supervise. What left the command's process group and lost its parent before it was seen goes on.
[[noreturn]] void superviseCommand(int control, int output);

}  // namespace sorvane::platform
