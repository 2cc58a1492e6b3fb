#pragma once

#import <AppKit/AppKit.h>
#import <LocalAuthentication/LocalAuthentication.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

// The classes that src/platform/macos uses, with as much of Objective-C's run-time behind them as its calls need, so
// that those files run where there is no macOS. Nothing is counted here: what is held too long, or let go too early,
// only a Mac shows.

namespace sorvane::test::apple {

/// FakeOwner is the person at this Mac, and what LAContext makes of them. One at a time.
class FakeOwner {
 public:
  FakeOwner();
  ~FakeOwner();
  FakeOwner(const FakeOwner&) = delete;
  FakeOwner& operator=(const FakeOwner&) = delete;

  /// The error of each policy that cannot be evaluated, by the policy's number.
  std::map<long, long> unable;
  long biometry = 0;

  /// A prompt that is, or was, on the screen.
  struct Prompt {
    long policy = 0;      ///< 0: an access control
    long operation = -1;  ///< of an access control
    std::string title;    ///< of the button beside the quick way; "(the system's)" when none was set
    std::string reason;
    const void* context = nullptr;
    bool isTakenBack = false;
    std::function<void(bool isGranted, long code)> answer;
    /// The same, with an error of somebody else's.
    std::function<void(long code)> failElsewhere;
  };
  std::vector<Prompt> prompts;
};

/// Posts a notice of the workspace.
void postWorkspaceNotice(NSNotificationName name);
/// How many hear notices of the workspace.
std::size_t workspaceHearers();

struct FakeTimer {
  double seconds = 0;
  std::function<void()> fire;
};
/// The timers that were set since this was last asked.
std::vector<FakeTimer> takeTimers();

}  // namespace sorvane::test::apple
