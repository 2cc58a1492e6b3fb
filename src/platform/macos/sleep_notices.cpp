#include "platform/macos/sleep_notices.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/IOMessage.h>
#include <IOKit/pwr_mgt/IOPMLib.h>

namespace sorvane::platform {

/// Registration is what the system knows this process by. Sleep is allowed through it as long as it is there.
class SleepNotices::Registration : public std::enable_shared_from_this<Registration> {
 public:
  /// nullptr when the system does not register.
  static std::shared_ptr<Registration> make(const Tell& tell) {
    auto made = std::make_shared<Registration>(tell);
    made->power_ = IORegisterForSystemPower(made.get(), &made->port_, hear, &made->notifier_);
    if (made->power_ == 0) return nullptr;
    CFRunLoopAddSource(CFRunLoopGetMain(), IONotificationPortGetRunLoopSource(made->port_), kCFRunLoopCommonModes);
    return made;
  }
  explicit Registration(const Tell& tell) : tell_(tell) {}
  ~Registration() {
    if (power_ != 0) IOServiceClose(power_);
  }
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;

  /// Nothing is heard any more.
  void stop() {
    CFRunLoopRemoveSource(CFRunLoopGetMain(), IONotificationPortGetRunLoopSource(port_), kCFRunLoopCommonModes);
    IODeregisterForSystemPower(&notifier_);
    IONotificationPortDestroy(port_);
  }

 private:
  static void hear(void* self, io_service_t, std::uint32_t message, void* number) {
    const auto registration = static_cast<Registration*>(self)->shared_from_this();
    registration->heard(message, reinterpret_cast<std::intptr_t>(number));
  }

  void heard(std::uint32_t message, std::intptr_t number) {
    switch (message) {
      case kIOMessageCanSystemSleep:
        // An idle computer may: nothing here keeps it awake.
        IOAllowPowerChange(power_, number);
        return;
      case kIOMessageSystemWillSleep:
        // Within the hold's end, on whichever thread that is.
        return tell_(SessionEvent::willSleep,
                     unlock::SessionSignals::Hold(static_cast<const void*>(this),
                                                  [self = shared_from_this(), number](const void*) {
                                                    IOAllowPowerChange(self->power_, number);
                                                  }));
      case kIOMessageSystemHasPoweredOn:
        return tell_(SessionEvent::didWake, nullptr);
      default:
        return;
    }
  }

  const Tell& tell_;  ///< used until `stop`
  io_connect_t power_ = 0;
  IONotificationPortRef port_ = nullptr;
  io_object_t notifier_ = 0;
};

SleepNotices::SleepNotices(Tell tell) : tell_(std::move(tell)), registration_(Registration::make(tell_)) {}

SleepNotices::~SleepNotices() {
  if (registration_) registration_->stop();
}

}  // namespace sorvane::platform
