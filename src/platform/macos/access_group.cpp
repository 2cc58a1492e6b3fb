#include "platform/macos/access_group.h"

#include <Security/Security.h>

#include "platform/macos/core_foundation.h"

namespace sorvane::platform {

std::optional<std::string> ownAccessGroup(std::string_view wanted) {
  const Owned<SecTaskRef> self(SecTaskCreateFromSelf(kCFAllocatorDefault));
  const auto name = stringOf("keychain-access-groups");
  if (!self || !name) return std::nullopt;
  const Owned<CFTypeRef> value(SecTaskCopyValueForEntitlement(self.get(), name.get(), nullptr));
  const auto groups = as<CFArrayRef>(value.get(), CFArrayGetTypeID);
  if (groups == nullptr) return std::nullopt;
  for (CFIndex index = 0; index < CFArrayGetCount(groups); ++index) {
    const auto group = textOf(CFArrayGetValueAtIndex(groups, index));
    // The system puts the team's identifier, which has no full stop, in front.
    if (group && (*group == wanted || group->substr(group->find('.') + 1) == wanted)) return group;
  }
  return std::nullopt;
}

}  // namespace sorvane::platform
