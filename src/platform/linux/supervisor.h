#pragma once

namespace sorvane::platform {

/// As ForkedHost::Supervise.
[[noreturn]] void superviseCommand(int control, int output);

}  // namespace sorvane::platform
