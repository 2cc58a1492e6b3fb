#include "platform/macos/managed_settings.h"

#include "platform/macos/core_foundation.h"

namespace sorvane::platform {

std::optional<bool> managedFollowsSession(std::string_view domain,
                                          const std::function<void(const std::string&)>& warn) {
  const auto key = stringOf("UnlockFollowsSession");
  const auto application = stringOf(domain);
  if (!key || !application || !CFPreferencesAppValueIsForced(key.get(), application.get())) return std::nullopt;
  const Owned<CFPropertyListRef> value(CFPreferencesCopyAppValue(key.get(), application.get()));
  const auto follows = truthOf(value.get());
  if (!follows) {
    warn("The organization's settings in " + std::string(domain) +
         " were not used: UnlockFollowsSession is neither true nor false. Ask whoever looks after this Mac to put it "
         "right.");
  }
  return follows;
}

}  // namespace sorvane::platform
