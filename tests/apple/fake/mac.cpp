#include "apple/fake/mac.h"

#include <CoreGraphics/CoreGraphics.h>
#include <IOKit/pwr_mgt/IOPMLib.h>
#include <Security/Security.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <mutex>

#include "apple/fake/objects.h"

using namespace sorvane::test::apple;

struct IONotificationPort {
  CFRunLoopSourceRef source = nullptr;
};

namespace {

struct Hearer {
  const void* observer;
  CFNotificationCallback callback;
  std::string name;
};
struct PowerClient {
  void* info;
  IOServiceInterestCallback hear;
  IONotificationPort* port;
};

struct State {
  FakeMac* mac = nullptr;
  std::vector<Hearer> hearers;
  std::optional<PowerClient> client;
  mutable std::mutex mutex;
  std::vector<std::intptr_t> allowed;
  int open = 0;
} state;

constexpr io_connect_t kPower = 17;

Object* made(const FakeMac::Value& value) {
  if (const auto* const text = std::get_if<std::string>(&value)) return new String(*text);
  if (const auto* const number = std::get_if<double>(&value)) return new Number(*number);
  return &objectOf(std::get<bool>(value) ? kCFBooleanTrue : kCFBooleanFalse);
}

const FakeMac::Preference* preference(CFStringRef key, CFStringRef domain) {
  const auto found = state.mac->preferences.find(as<String>(domain).bytes);
  if (found == state.mac->preferences.end()) return nullptr;
  const auto value = found->second.find(as<String>(key).bytes);
  return value == found->second.end() ? nullptr : &value->second;
}

}  // namespace

namespace sorvane::test::apple {

FakeMac::FakeMac() {
  if (state.mac != nullptr) std::abort();
  state.mac = this;
  state.allowed.clear();
}

FakeMac::~FakeMac() {
  EXPECT_TRUE(state.hearers.empty()) << "somebody still hears notices";
  EXPECT_FALSE(state.client) << "somebody still hears of sleep";
  EXPECT_EQ(state.open, 0) << "connections were left open";
  EXPECT_EQ(liveObjects(), 0) << "objects were not released";
  state.mac = nullptr;
}

void FakeMac::post(const std::string& notice) {
  const auto all = state.hearers;
  auto* const name = new String(notice);
  for (const Hearer& hearer : all) {
    if (hearer.name != notice) continue;
    hearer.callback(CFNotificationCenterGetDistributedCenter(), const_cast<void*>(hearer.observer),
                    refOf<CFStringRef>(name), nullptr, nullptr);
  }
  name->release();
}

void FakeMac::power(std::uint32_t message, std::intptr_t number) {
  // Told within the loop, so that one whose source is not in it hears nothing.
  if (state.client && isInMainLoop(state.client->port->source))
    state.client->hear(state.client->info, 0, message, reinterpret_cast<void*>(number));
}

std::vector<std::intptr_t> FakeMac::allowed() const {
  const std::lock_guard lock(state.mutex);
  return state.allowed;
}

int FakeMac::openConnections() const {
  const std::lock_guard lock(state.mutex);
  return state.open;
}

}  // namespace sorvane::test::apple

extern "C" {

CFDictionaryRef CGSessionCopyCurrentDictionary() {
  if (!state.mac->session) return nullptr;
  auto* const dictionary = new Dictionary;
  for (const auto& [name, value] : *state.mac->session) {
    auto* const key = new String(name);
    Object* const object = made(value);
    dictionary->set(*key, *object);
    key->release();
    object->release();
  }
  return refOf<CFDictionaryRef>(dictionary);
}

Boolean CFPreferencesAppValueIsForced(CFStringRef key, CFStringRef domain) {
  const auto* const found = preference(key, domain);
  return found != nullptr && found->isForced;
}
CFPropertyListRef CFPreferencesCopyAppValue(CFStringRef key, CFStringRef domain) {
  const auto* const found = preference(key, domain);
  return found == nullptr ? nullptr : made(found->value);
}

CFNotificationCenterRef CFNotificationCenterGetDistributedCenter() {
  return reinterpret_cast<CFNotificationCenterRef>(&state);
}
void CFNotificationCenterAddObserver(CFNotificationCenterRef, const void* observer, CFNotificationCallback callback,
                                     CFStringRef name, const void*, CFNotificationSuspensionBehavior behavior) {
  if (behavior != CFNotificationSuspensionBehaviorDeliverImmediately) return;
  state.hearers.push_back({observer, callback, as<String>(name).bytes});
}
void CFNotificationCenterRemoveEveryObserver(CFNotificationCenterRef, const void* observer) {
  std::erase_if(state.hearers, [&](const Hearer& hearer) { return hearer.observer == observer; });
}

io_connect_t IORegisterForSystemPower(void* info, IONotificationPortRef* port, IOServiceInterestCallback hear,
                                      io_object_t* notifier) {
  if (state.mac->refusesPower) return 0;
  if (state.client) std::abort();  // one at a time
  CFRunLoopSourceContext context{};
  *port = new IONotificationPort{CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &context)};
  *notifier = 1;
  state.client = PowerClient{info, hear, *port};
  const std::lock_guard lock(state.mutex);
  ++state.open;
  return kPower;
}
IOReturn IODeregisterForSystemPower(io_object_t* notifier) {
  if (*notifier != 1) std::abort();
  *notifier = 0;
  state.client.reset();
  return 0;
}
CFRunLoopSourceRef IONotificationPortGetRunLoopSource(IONotificationPortRef port) {
  return port->source;
}
void IONotificationPortDestroy(IONotificationPortRef port) {
  CFRelease(port->source);
  delete port;
}
kern_return_t IOServiceClose(io_connect_t connect) {
  if (connect != kPower) std::abort();
  const std::lock_guard lock(state.mutex);
  --state.open;
  return 0;
}
IOReturn IOAllowPowerChange(io_connect_t connect, intptr_t number) {
  const std::lock_guard lock(state.mutex);
  if (connect != kPower || state.open == 0) std::abort();  // through a connection that is closed
  state.allowed.push_back(number);
  return 0;
}

SecAccessControlRef SecAccessControlCreateWithFlags(CFAllocatorRef, CFTypeRef protection,
                                                    SecAccessControlCreateFlags flags, CFErrorRef*) {
  if (state.mac->refusesAccessControl) return nullptr;
  state.mac->accessControl = {as<String>(protection).bytes, flags};
  struct Control final : Object {
    Control() : Object(Kind::accessControl) {}
  };
  return refOf<SecAccessControlRef>(new Control);
}

}  // extern "C"
