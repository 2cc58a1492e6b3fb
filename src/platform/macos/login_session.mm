#include "platform/macos/login_session.h"

#import <AppKit/AppKit.h>

#include "base/diagnostics.h"
#include "platform/macos/main_loop.h"
#include "platform/macos/screen_notices.h"
#include "platform/macos/session_state.h"
#include "platform/macos/session_tracker.h"
#include "platform/macos/sleep_notices.h"

namespace sorvane::platform {

namespace {

constexpr char kNobodyReports[] =
    "sorvaned runs outside of a session with a screen, over ssh for example, so the vault does not close when the "
    "screen locks. Lock it with sorvane lock.";

using Tracker = std::shared_ptr<SessionTracker>;

/// Tells the tracker now, and again when it asked for that, unless it is gone by then.
void note(const Tracker& tracker, SessionEvent event, const SessionTracker::Hold& hold = nullptr) {
  const auto later = tracker->note(event, hold);
  if (!later) return;
  const std::weak_ptr<SessionTracker> still = tracker;
  const std::chrono::duration<double> seconds = later->after;
  [NSTimer scheduledTimerWithTimeInterval:seconds.count()
                                  repeats:NO
                                    block:^(NSTimer*) {
                                      if (const auto left = still.lock()) note(left, later->event);
                                    }];
}

}  // namespace

/// Everything that is heard. Of the main thread alone.
class WorkspaceSession::Notices {
 public:
  explicit Notices(const Tracker& tracker)
      : tracker_(tracker),
        observers_([NSMutableArray array]),
        screen_([tracker](SessionEvent event) { note(tracker, event); }),
        sleep_([tracker](SessionEvent event, const auto& hold) { note(tracker, event, hold); }) {
    hear(NSWorkspaceWillSleepNotification, SessionEvent::willSleep);
    hear(NSWorkspaceDidWakeNotification, SessionEvent::didWake);
    hear(NSWorkspaceSessionDidResignActiveNotification, SessionEvent::resigned);
    hear(NSWorkspaceSessionDidBecomeActiveNotification, SessionEvent::becameActive);
    hear(NSWorkspaceWillPowerOffNotification, SessionEvent::willPowerOff);
    if (!sleep_.areTold()) base::diagnose("session", "sleep will not wait for the vault to be closed");
  }
  ~Notices() {
    for (id observer in observers_) [center() removeObserver:observer];
  }
  Notices(const Notices&) = delete;
  Notices& operator=(const Notices&) = delete;

 private:
  static NSNotificationCenter* center() { return NSWorkspace.sharedWorkspace.notificationCenter; }

  void hear(NSNotificationName name, SessionEvent event) {
    const std::weak_ptr<SessionTracker> still = tracker_;
    [observers_ addObject:[center() addObserverForName:name
                                                object:nil
                                                 queue:nil
                                            usingBlock:^(NSNotification*) {
                                              if (const auto left = still.lock()) note(left, event);
                                            }]];
  }

  const Tracker tracker_;
  NSMutableArray* const observers_;
  const ScreenNotices screen_;
  const SleepNotices sleep_;
};

WorkspaceSession::WorkspaceSession() = default;

WorkspaceSession::~WorkspaceSession() {
  if (!notices_) return;
  onMainLoop([this] {
    @autoreleasepool {
      notices_.reset();
    }
  });
}

std::optional<unlock::SessionState> WorkspaceSession::observe(Observer observer) {
  std::optional<unlock::SessionState> state;
  onMainLoop([&] {
    @autoreleasepool {
      const auto tracker = std::make_shared<SessionTracker>(currentSession);
      // Before the look, so that no change falls between the two.
      notices_ = std::make_unique<Notices>(tracker);
      state = tracker->begin(std::move(observer));
      if (!state) notices_.reset();
    }
  });
  if (!state) base::diagnose("session", kNobodyReports);
  return state;
}

}  // namespace sorvane::platform
