#pragma once

#include "approver/browser.h"

namespace sorvane::platform {

/// BonjourBrowser asks the system's Bonjour daemon, by the C interface of dns_sd.h. Without one, nothing is found.
class BonjourBrowser final : public approver::Browser {
 public:
  std::vector<Found> find(std::string_view id, std::chrono::milliseconds limit,
                          const std::function<bool()>& isStopped) override;
};

}  // namespace sorvane::platform
