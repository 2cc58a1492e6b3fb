#include "platform/macos/notifier.h"

#import <Foundation/Foundation.h>
#import <UserNotifications/UserNotifications.h>

#include "platform/macos/notice_gate.h"

namespace sorvane::platform {

namespace {

NSString* words(const std::string& text) {
  return [NSString stringWithUTF8String:text.c_str()];
}

void show(UNUserNotificationCenter* center, const Notice& notice) {
  UNMutableNotificationContent* const content = [[UNMutableNotificationContent alloc] init];
  content.title = words(notice.title);
  content.body = words(notice.body);
  // Without a trigger it is shown at once.
  [center addNotificationRequest:[UNNotificationRequest requestWithIdentifier:[NSUUID UUID].UUIDString
                                                                      content:content
                                                                      trigger:nil]
           withCompletionHandler:nil];
}

void ask(UNUserNotificationCenter* center, std::shared_ptr<NoticeGate> gate) {
  [center requestAuthorizationWithOptions:UNAuthorizationOptionAlert
                        completionHandler:^(BOOL, NSError*) {
                          for (const Notice& notice : gate->answered()) show(center, notice);
                        }];
}

}  // namespace

UserNotifier::UserNotifier() : gate_(std::make_shared<NoticeGate>()) {}

UserNotifier::~UserNotifier() = default;

void UserNotifier::notify(const std::string& title, const std::string& body) {
  @autoreleasepool {
    // The Notification Center knows programs by their bundle, and throws for one that has none.
    if (NSBundle.mainBundle.bundleIdentifier == nil) return;
    @try {
      UNUserNotificationCenter* const center = UNUserNotificationCenter.currentNotificationCenter;
      const Notice notice(title, body);
      switch (gate_->take(notice)) {
        case NoticeGate::Next::ask:
          ask(center, gate_);
          break;
        case NoticeGate::Next::wait:
          break;
        case NoticeGate::Next::show:
          show(center, notice);
          break;
      }
    } @catch (NSException*) {
      // The same for a program beside a bundle. Nothing depends on a notice.
    }
  }
}

}  // namespace sorvane::platform
