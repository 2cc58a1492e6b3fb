#pragma once

#include <string_view>

namespace sorvane::platform {

/// Tells the service manager that started this process how it is, such as "READY=1": one datagram to the socket named
/// by NOTIFY_SOCKET (sd_notify(3)). Nothing happens when there is none. Does not throw.
void tellServiceManager(std::string_view state);

}  // namespace sorvane::platform
