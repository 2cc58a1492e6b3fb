#include "platform/macos/screen_notices.h"

#include <CoreFoundation/CoreFoundation.h>

#include <string_view>

#include "platform/macos/core_foundation.h"

namespace sorvane::platform {
namespace {

constexpr std::string_view kLocked = "com.apple.screenIsLocked";
constexpr std::string_view kUnlocked = "com.apple.screenIsUnlocked";

}  // namespace

ScreenNotices::ScreenNotices(std::function<void(SessionEvent)> tell) : tell_(std::move(tell)) {
  const auto hear = [](CFNotificationCenterRef, void* observer, CFNotificationName name, const void*, CFDictionaryRef) {
    const auto text = textOf(name);
    const auto& notices = *static_cast<const ScreenNotices*>(observer);
    if (text == kLocked) notices.tell_(SessionEvent::screenLocked);
    if (text == kUnlocked) notices.tell_(SessionEvent::screenUnlocked);
  };
  for (const std::string_view name : {kLocked, kUnlocked}) {
    // At once: others of this kind are kept back from a program that is not in front.
    CFNotificationCenterAddObserver(CFNotificationCenterGetDistributedCenter(), this, hear, stringOf(name).get(),
                                    nullptr, CFNotificationSuspensionBehaviorDeliverImmediately);
  }
}

ScreenNotices::~ScreenNotices() {
  CFNotificationCenterRemoveEveryObserver(CFNotificationCenterGetDistributedCenter(), this);
}

}  // namespace sorvane::platform
