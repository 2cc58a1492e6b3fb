#include "platform/macos/session_state.h"

#include <CoreGraphics/CoreGraphics.h>

#include "platform/macos/core_foundation.h"

namespace sorvane::platform {
namespace {

std::optional<bool> entry(CFDictionaryRef dictionary, std::string_view name) {
  const auto key = stringOf(name);
  return key ? truthOf(CFDictionaryGetValue(dictionary, key.get())) : std::nullopt;
}

}  // namespace

std::optional<unlock::SessionState> currentSession() {
  const Owned<CFDictionaryRef> session(CGSessionCopyCurrentDictionary());
  if (!session) return std::nullopt;
  const bool isInFront = entry(session.get(), "kCGSSessionOnConsoleKey").value_or(true);
  // Where another session is in front, nobody sees this one's screen: it counts as locked.
  const bool isLocked = entry(session.get(), "CGSSessionScreenIsLocked").value_or(false) || !isInFront;
  return unlock::SessionState{.active = isInFront, .screenLocked = isLocked};
}

}  // namespace sorvane::platform
