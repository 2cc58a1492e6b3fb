#include <CoreFoundation/CoreFoundation.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "apple/fake/objects.h"

// The loop of the main thread: sources that are performed there after they were signalled and the loop was woken, as
// the documentation has it. A signal alone wakes nobody, and a loop without sources ends at once.

namespace sorvane::test::apple {
namespace {

class Loop final : public Object {
 public:
  Loop() : Object(Kind::runLoop) { makeConstant(); }
};

class Source final : public Object {
 public:
  explicit Source(const CFRunLoopSourceContext& given) : Object(Kind::source), context(given) {}
  ~Source() override {
    if (context.release != nullptr) context.release(context.info);
  }
  const CFRunLoopSourceContext context;
  bool isSignalled = false, isValid = true;
};

struct Main {
  std::mutex mutex;
  std::condition_variable woken;
  bool isAwake = false, isStopped = false;
  std::vector<Source*> sources;
} main;

Loop& mainLoop() {
  static Loop* const loop = new Loop;
  return *loop;
}
Loop& anotherLoop() {
  static Loop* const loop = new Loop;
  return *loop;
}

void take(Source& source, std::unique_lock<std::mutex>& lock) {
  const auto found = std::find(main.sources.begin(), main.sources.end(), &source);
  if (found == main.sources.end()) return;
  main.sources.erase(found);
  lock.unlock();
  source.release();
  lock.lock();
}

void perform(std::unique_lock<std::mutex>& lock) {
  const std::vector<Source*> all = main.sources;
  for (Source* const source : all) source->retain();
  for (Source* const source : all) {
    const bool isDue = source->isValid && std::exchange(source->isSignalled, false);
    lock.unlock();
    if (isDue) source->context.perform(source->context.info);
    source->release();
    lock.lock();
  }
}

}  // namespace

bool isInMainLoop(CFRunLoopSourceRef source) {
  const std::lock_guard lock(main.mutex);
  return std::find(main.sources.begin(), main.sources.end(), &as<Source>(source)) != main.sources.end();
}

}  // namespace sorvane::test::apple

using namespace sorvane::test::apple;

extern "C" {

const CFRunLoopMode kCFRunLoopCommonModes = reinterpret_cast<CFStringRef>(&kCFRunLoopCommonModes);

CFRunLoopRef CFRunLoopGetMain() {
  return refOf<CFRunLoopRef>(&mainLoop());
}
CFRunLoopRef CFRunLoopGetCurrent() {
  return refOf<CFRunLoopRef>(::gettid() == ::getpid() ? &mainLoop() : &anotherLoop());
}

void CFRunLoopRun() {
  if (CFRunLoopGetCurrent() != CFRunLoopGetMain()) std::abort();  // no other loop is run here
  std::unique_lock lock(main.mutex);
  main.isStopped = false;
  while (!main.isStopped && !main.sources.empty()) {
    main.woken.wait(lock, [] { return main.isAwake; });
    main.isAwake = false;
    perform(lock);
  }
}
void CFRunLoopStop(CFRunLoopRef loop) {
  if (loop != CFRunLoopGetMain()) std::abort();
  const std::lock_guard lock(main.mutex);
  main.isStopped = main.isAwake = true;
  main.woken.notify_all();
}
void CFRunLoopWakeUp(CFRunLoopRef loop) {
  if (loop != CFRunLoopGetMain()) std::abort();
  const std::lock_guard lock(main.mutex);
  main.isAwake = true;
  main.woken.notify_all();
}

CFRunLoopSourceRef CFRunLoopSourceCreate(CFAllocatorRef, CFIndex, CFRunLoopSourceContext* context) {
  return refOf<CFRunLoopSourceRef>(new Source(*context));
}
void CFRunLoopAddSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFRunLoopMode) {
  if (loop != CFRunLoopGetMain()) std::abort();
  auto& added = as<Source>(source);
  added.retain();
  const std::lock_guard lock(main.mutex);
  main.sources.push_back(&added);
}
void CFRunLoopRemoveSource(CFRunLoopRef, CFRunLoopSourceRef source, CFRunLoopMode) {
  std::unique_lock lock(main.mutex);
  take(as<Source>(source), lock);
}
void CFRunLoopSourceSignal(CFRunLoopSourceRef source) {
  const std::lock_guard lock(main.mutex);
  as<Source>(source).isSignalled = true;
}
void CFRunLoopSourceInvalidate(CFRunLoopSourceRef source) {
  std::unique_lock lock(main.mutex);
  as<Source>(source).isValid = false;
  take(as<Source>(source), lock);
}

}  // extern "C"
