#pragma once

#include <functional>

namespace sorvane::platform {

/// The stack of the thread that `runWithMainLoop` gives the program; the system's threads have half a megabyte.
inline constexpr std::size_t kBodyStackBytes = std::size_t{8} << 20;

/// Runs `body` on a thread of its own while the main thread runs its loop, on which alone the system tells how the
/// session changes; returns what `body` returned, and what it throws reaches the caller. Signals of the process go to
/// the thread of `body` and those that it starts, as they would to a program without this. Called on the main thread.
int runWithMainLoop(const std::function<int()>& body);

/// Runs `work` on the main thread, within its loop, and waits until it ran; what it throws reaches the caller. Only
/// within runWithMainLoop. Runs it right away when called on the main thread.
void onMainLoop(const std::function<void()>& work);

}  // namespace sorvane::platform
