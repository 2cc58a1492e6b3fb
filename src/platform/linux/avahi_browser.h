#pragma once

#include "approver/browser.h"

namespace sorvane::platform {

/// AvahiBrowser asks the Avahi daemon over the system bus. Without one, nothing is found.
class AvahiBrowser final : public approver::Browser {
 public:
  std::vector<Found> find(std::string_view id, std::chrono::milliseconds limit,
                          const std::function<bool()>& isStopped) override;
};

}  // namespace sorvane::platform
