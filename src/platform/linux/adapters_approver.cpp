#include "platform/adapters_approver.h"

#include "platform/linux/avahi_browser.h"

namespace sorvane::platform {

std::unique_ptr<approver::Browser> makeBrowser() {
  return std::make_unique<AvahiBrowser>();
}

}  // namespace sorvane::platform
