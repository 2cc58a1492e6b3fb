#include "platform/shared/question_threads.h"

#include <signal.h>

#include <utility>

namespace sorvane::platform {

QuestionThreads::~QuestionThreads() {
  for (Running& running : running_) running.thread.join();
}

void QuestionThreads::start(std::function<void()> question) {
  running_.remove_if([](Running& running) {
    if (!running.hasEnded->load()) return false;
    running.thread.join();
    return true;
  });
  const auto hasEnded = std::make_shared<std::atomic<bool>>(false);
  Running& added = running_.emplace_back();
  added.hasEnded = hasEnded;
  sigset_t all, earlier;
  sigfillset(&all);
  // Signals are for the threads that wait for them.
  ::pthread_sigmask(SIG_SETMASK, &all, &earlier);
  added.thread = std::thread([hasEnded, question = std::move(question)]() mutable {
    question();
    // What it holds goes first.
    question = nullptr;
    hasEnded->store(true);
  });
  ::pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
}

}  // namespace sorvane::platform
