#pragma once

#include <memory>

#include "approver/browser.h"

// What the program of the second device takes from the system that it was built for.

namespace sorvane::platform {

/// nullptr in a build that cannot look for a computer in the local network; its address is given by hand then.
std::unique_ptr<approver::Browser> makeBrowser();

}  // namespace sorvane::platform
