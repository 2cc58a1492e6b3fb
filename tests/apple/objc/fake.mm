#include "apple/objc/fake.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

using namespace sorvane::test::apple;

// Blocks, as the compiler lays them out.

extern "C" {

void* _NSConcreteStackBlock[32];
void* _NSConcreteGlobalBlock[32];
id class_createInstance(Class aClass, std::size_t extraBytes);
id objc_getClass(const char* name);

struct BlockDescriptor {
  unsigned long reserved, size;
  void (*copy)(void* to, const void* from);
  void (*dispose)(const void* block);
};
struct BlockLayout {
  void* isa;
  int flags, reserved;
  void* invoke;
  const BlockDescriptor* descriptor;
};

}  // extern "C"

namespace {

constexpr int kHasHelpers = 1 << 25, kIsGlobal = 1 << 28;

/// A copy of the block, with what it holds, for as long as the last copy of this.
template <typename Block>
std::shared_ptr<void> copied(Block block) {
  const auto* const layout = reinterpret_cast<const BlockLayout*>((const void*)block);
  if ((layout->flags & kIsGlobal) != 0) return {const_cast<BlockLayout*>(layout), [](void*) {}};
  void* const copy = std::malloc(layout->descriptor->size);
  std::memcpy(copy, layout, layout->descriptor->size);
  const bool hasHelpers = (layout->flags & kHasHelpers) != 0;
  if (hasHelpers) layout->descriptor->copy(copy, layout);
  return {copy, [hasHelpers](void* block_) {
            if (hasHelpers) static_cast<const BlockLayout*>(block_)->descriptor->dispose(block_);
            std::free(block_);
          }};
}

struct Context {
  std::optional<std::string> title;
  std::vector<std::size_t> prompts;
};
struct Error {
  std::string domain;
  long code = 0;
};
struct Hearer {
  NSNotificationName name;
  std::function<void()> tell;
};

/// What the objects hold; they are no more than an address.
struct State {
  FakeOwner* owner = nullptr;
  std::map<const void*, std::string> texts;
  std::map<const void*, Error> errors;
  std::map<const void*, Context> contexts;
  std::map<const void*, std::vector<id>> arrays;
  std::map<const void*, Hearer> hearers;
  std::vector<FakeTimer> timers;
};
State& state() {
  static State* const all = new State;
  return *all;
}

NSString* constant(const char* text) {
  return [NSString stringWithUTF8String:text];
}

NSError* errorOf(NSErrorDomain domain, long code) {
  NSError* const error = [[NSError alloc] init];
  state().errors[error] = {state().texts.at(domain), code};
  return error;
}

}  // namespace

// The constants have to be there before there are classes, which they get with the first FakeOwner.
namespace {

struct Literal {
  Class isa;
  const char* text;
};
Literal literals[] = {
    {nil, "com.apple.LocalAuthentication"},
    {nil, "NSWorkspaceWillSleepNotification"},
    {nil, "NSWorkspaceDidWakeNotification"},
    {nil, "NSWorkspaceSessionDidResignActiveNotification"},
    {nil, "NSWorkspaceSessionDidBecomeActiveNotification"},
    {nil, "NSWorkspaceWillPowerOffNotification"},
};

NSString* literal(std::size_t number) {
  return reinterpret_cast<NSString*>(&literals[number]);
}

void classify() {
  for (Literal& one : literals) {
    one.isa = objc_getClass("NSString");
    state().texts[&one] = one.text;
  }
}

}  // namespace

NSErrorDomain const LAErrorDomain = literal(0);
NSNotificationName const NSWorkspaceWillSleepNotification = literal(1);
NSNotificationName const NSWorkspaceDidWakeNotification = literal(2);
NSNotificationName const NSWorkspaceSessionDidResignActiveNotification = literal(3);
NSNotificationName const NSWorkspaceSessionDidBecomeActiveNotification = literal(4);
NSNotificationName const NSWorkspaceWillPowerOffNotification = literal(5);

// Only what is called is there.
#pragma clang diagnostic ignored "-Wincomplete-implementation"
#pragma clang diagnostic ignored "-Wobjc-property-implementation"
#pragma clang diagnostic ignored "-Wprotocol"

@implementation NSObject
+ (instancetype)alloc {
  // The declaration shows no fields, so that there is no room for the class without asking for it.
  return class_createInstance(self, sizeof(void*));
}
- (instancetype)init {
  return self;
}
@end

// What the compiler makes of @autoreleasepool here.
@interface NSAutoreleasePool : NSObject
- (void)drain;
@end
@implementation NSAutoreleasePool
- (void)drain {
}
@end

@implementation NSString
+ (instancetype)stringWithUTF8String:(const char*)text {
  NSString* const made = [[NSString alloc] init];
  state().texts[made] = text;
  return made;
}
- (BOOL)isEqualToString:(NSString*)text {
  return state().texts.at(self) == state().texts.at(text);
}
@end

@implementation NSError
- (NSInteger)code {
  return state().errors.at(self).code;
}
- (NSErrorDomain)domain {
  return constant(state().errors.at(self).domain.c_str());
}
@end

@implementation NSTimer
+ (NSTimer*)scheduledTimerWithTimeInterval:(NSTimeInterval)seconds
                                   repeats:(BOOL)repeats
                                     block:(void (^)(NSTimer*))block {
  if (repeats) std::abort();
  const auto copy = copied(block);
  state().timers.push_back({seconds, [copy] { ((void (^)(NSTimer*))copy.get())(nil); }});
  return [[NSTimer alloc] init];
}
@end

@implementation NSArray
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState*)progress
                                  objects:(id __unsafe_unretained[])buffer
                                    count:(NSUInteger)count {
  const std::vector<id>& items = state().arrays.at(self);
  static unsigned long unchanged = 0;
  progress->mutationsPtr = &unchanged;
  progress->itemsPtr = buffer;
  NSUInteger given = 0;
  for (; given < count && progress->state < items.size(); ++given) buffer[given] = items[progress->state++];
  return given;
}
@end
@implementation NSMutableArray
+ (instancetype)array {
  NSMutableArray* const made = [[NSMutableArray alloc] init];
  state().arrays[made];
  return made;
}
- (void)addObject:(id)object {
  state().arrays.at(self).push_back(object);
}
@end

@implementation NSNotificationCenter
- (id<NSObject>)addObserverForName:(NSNotificationName)name
                            object:(id)object
                             queue:(NSOperationQueue*)queue
                        usingBlock:(void (^)(NSNotification*))block {
  if (object != nil || queue != nil) std::abort();
  NSObject* const token = [[NSObject alloc] init];
  const auto copy = copied(block);
  state().hearers[token] = {name, [copy] { ((void (^)(NSNotification*))copy.get())(nil); }};
  return (id<NSObject>)token;
}
- (void)removeObserver:(id)observer {
  if (state().hearers.erase(observer) != 1) std::abort();
}
@end

@implementation NSWorkspace
+ (NSWorkspace*)sharedWorkspace {
  static NSWorkspace* const one = [[NSWorkspace alloc] init];
  return one;
}
- (NSNotificationCenter*)notificationCenter {
  static NSNotificationCenter* const one = [[NSNotificationCenter alloc] init];
  return one;
}
@end

@interface LAContext ()
- (void)show:(FakeOwner::Prompt)prompt reply:(void (^)(BOOL, NSError*))reply;
@end

@implementation LAContext
- (void)setLocalizedFallbackTitle:(NSString*)title {
  state().contexts[self].title = state().texts.at(title);
}
- (LABiometryType)biometryType {
  // Known only once the context was asked for it.
  return state().contexts.contains(self) ? state().owner->biometry : 0;
}
- (BOOL)canEvaluatePolicy:(LAPolicy)policy error:(NSError* __autoreleasing*)error {
  state().contexts[self];
  const auto found = state().owner->unable.find(policy);
  if (found == state().owner->unable.end()) return YES;
  if (error != nullptr) *error = errorOf(LAErrorDomain, found->second);
  return NO;
}
- (void)evaluatePolicy:(LAPolicy)policy
       localizedReason:(NSString*)reason
                 reply:(void (^)(BOOL success, NSError* error))reply {
  [self show:{.policy = policy, .reason = state().texts.at(reason)} reply:reply];
}
- (void)evaluateAccessControl:(SecAccessControlRef)control
                    operation:(LAAccessControlOperation)operation
              localizedReason:(NSString*)reason
                        reply:(void (^)(BOOL success, NSError* error))reply {
  if (control == nullptr) std::abort();
  [self show:{.operation = operation, .reason = state().texts.at(reason)} reply:reply];
}
- (void)show:(FakeOwner::Prompt)prompt reply:(void (^)(BOOL, NSError*))reply {
  if (prompt.reason.empty()) std::abort();  // the system raises an exception
  Context& context = state().contexts[self];
  prompt.title = context.title.value_or("(the system's)");
  prompt.context = self;
  const auto copy = copied(reply);
  const auto tell = [copy](BOOL isGranted, NSError* error) {
    ((void (^)(BOOL, NSError*))copy.get())(isGranted, error);
  };
  prompt.answer = [tell](bool isGranted, long code) {
    tell(isGranted ? YES : NO, code == 0 ? nil : errorOf(LAErrorDomain, code));
  };
  prompt.failElsewhere = [tell](long code) { tell(NO, errorOf(constant("NSOSStatusErrorDomain"), code)); };
  context.prompts.push_back(state().owner->prompts.size());
  state().owner->prompts.push_back(std::move(prompt));
}
- (void)invalidate {
  if (state().owner == nullptr) return;
  for (const std::size_t number : state().contexts[self].prompts) state().owner->prompts[number].isTakenBack = true;
}
@end

namespace sorvane::test::apple {

FakeOwner::FakeOwner() {
  if (std::exchange(state().owner, this) != nullptr) std::abort();
  classify();
}
FakeOwner::~FakeOwner() {
  state().owner = nullptr;
}

void postWorkspaceNotice(NSNotificationName name) {
  const auto all = state().hearers;
  for (const auto& [token, hearer] : all) {
    if ([hearer.name isEqualToString:name]) hearer.tell();
  }
}
std::size_t workspaceHearers() {
  return state().hearers.size();
}

std::vector<FakeTimer> takeTimers() {
  return std::exchange(state().timers, {});
}

}  // namespace sorvane::test::apple
