#include "platform/adapters_approver.h"

#include "platform/macos/bonjour_browser.h"

namespace sorvane::platform {

std::unique_ptr<approver::Browser> makeBrowser() {
  return std::make_unique<BonjourBrowser>();
}

}  // namespace sorvane::platform
