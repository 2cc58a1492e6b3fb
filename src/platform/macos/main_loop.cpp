#include "platform/macos/main_loop.h"

#include <CoreFoundation/CoreFoundation.h>
#include <pthread.h>
#include <signal.h>

#include <exception>
#include <future>
#include <memory>
#include <new>
#include <system_error>

#include "platform/macos/core_foundation.h"

namespace sorvane::platform {
namespace {

using Work = std::function<void()>;

/// Errand is done once on the main thread, within its loop, after `send`. The work may still be under way when the
/// errand is gone: the loop keeps it until it returned.
class Errand {
 public:
  explicit Errand(Work work) {
    CFRunLoopSourceContext context{};
    context.info = std::make_unique<Work>(std::move(work)).release();
    context.perform = [](void* info) { (*static_cast<Work*>(info))(); };
    context.release = [](const void* info) { delete static_cast<const Work*>(info); };
    source_ = Owned<CFRunLoopSourceRef>(CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &context));
    if (!source_) throw std::bad_alloc();
    CFRunLoopAddSource(CFRunLoopGetMain(), source_.get(), kCFRunLoopCommonModes);
  }
  ~Errand() { CFRunLoopSourceInvalidate(source_.get()); }
  Errand(const Errand&) = delete;
  Errand& operator=(const Errand&) = delete;

  void send() {
    CFRunLoopSourceSignal(source_.get());
    CFRunLoopWakeUp(CFRunLoopGetMain());
  }

 private:
  Owned<CFRunLoopSourceRef> source_;
};

/// Holds every signal back from this thread for a scope.
class HeldSignals {
 public:
  HeldSignals() {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &earlier_);
  }
  ~HeldSignals() { ::pthread_sigmask(SIG_SETMASK, &earlier_, nullptr); }
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;
  const sigset_t& earlier() const { return earlier_; }

 private:
  sigset_t earlier_{};
};

/// What the thread of the body works on. It outlives the thread.
struct Body {
  std::packaged_task<int()> task;
  sigset_t signals;
  Errand& ended;
};

void* run(void* given) {
  auto& body = *static_cast<Body*>(given);
  ::pthread_sigmask(SIG_SETMASK, &body.signals, nullptr);
  body.task();
  body.ended.send();
  return nullptr;
}

pthread_t start(Body& body) {
  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  ::pthread_attr_setstacksize(&attributes, kBodyStackBytes);
  pthread_t thread{};
  const int error = ::pthread_create(&thread, &attributes, run, &body);
  ::pthread_attr_destroy(&attributes);
  if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_create");
  return thread;
}

}  // namespace

int runWithMainLoop(const std::function<int()>& body) {
  bool hasEnded = false;
  Errand ended([&] {
    hasEnded = true;
    CFRunLoopStop(CFRunLoopGetMain());
  });
  const HeldSignals held;
  Body work{std::packaged_task<int()>(body), held.earlier(), ended};
  auto result = work.task.get_future();
  const pthread_t thread = start(work);
  // Others may stop the loop as well.
  while (!hasEnded) CFRunLoopRun();
  ::pthread_join(thread, nullptr);
  return result.get();
}

void onMainLoop(const Work& work) {
  if (CFRunLoopGetCurrent() == CFRunLoopGetMain()) return work();
  const auto task = std::make_shared<std::packaged_task<void()>>(work);
  auto done = task->get_future();
  Errand errand([task] { (*task)(); });
  errand.send();
  done.get();
}

}  // namespace sorvane::platform
