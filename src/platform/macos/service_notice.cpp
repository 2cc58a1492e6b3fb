#include "platform/macos/service_notice.h"

namespace sorvane::platform {

void tellServiceManager(std::string_view) {}

}  // namespace sorvane::platform
