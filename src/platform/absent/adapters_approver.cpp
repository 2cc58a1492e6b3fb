// For a build without the libraries that looking around in the local network takes.
#include "platform/adapters_approver.h"

namespace sorvane::platform {

std::unique_ptr<approver::Browser> makeBrowser() {
  return nullptr;
}

}  // namespace sorvane::platform
