#pragma once

#include <string_view>

namespace sorvane::platform {

/// Tells the service manager that started this process how it is. launchd does not ask: nothing happens.
void tellServiceManager(std::string_view state);

}  // namespace sorvane::platform
