#include "platform/linux/process_watch.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>

namespace sorvane::platform {
namespace {

using State = proxy::ProcessWatch::State;

/// A process that waits to be killed.
class Child {
 public:
  Child() : pid_(::fork()) {
    if (pid_ == 0) {
      while (true) ::pause();
    }
  }
  ~Child() { kill(); }
  pid_t pid() const { return pid_; }
  void kill() {
    if (!std::exchange(alive_, false)) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }

 private:
  const pid_t pid_;
  bool alive_ = true;
};

TEST(PidfdWatch, tellsOfEachProcessOnceItEnds) {
  Child first, second;
  std::promise<void> firstEnded, secondEnded;
  PidfdWatch watch;
  EXPECT_EQ(watch.watch(first.pid(), [&] { firstEnded.set_value(); }).state, State::watching);
  EXPECT_EQ(watch.watch(second.pid(), [&] { secondEnded.set_value(); }).state, State::watching);
  second.kill();
  secondEnded.get_future().get();
  EXPECT_EQ(firstEnded.get_future().wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  EXPECT_EQ(watch.watch(second.pid(), [] { FAIL(); }).state, State::gone);
  EXPECT_EQ(watch.watch(-5, [] { FAIL(); }).state, State::impossible);
}

TEST(PidfdWatch, aForgottenProcessIsNotToldAndACallThatRunsIsWaitedFor) {
  Child forgotten, running;
  PidfdWatch watch;
  const auto first = watch.watch(forgotten.pid(), [] { FAIL(); });
  std::promise<void> begun, mayEnd;
  std::atomic<bool> over = false;
  const auto second = watch.watch(running.pid(), [&] {
    begun.set_value();
    mayEnd.get_future().get();
    over = true;
  });
  watch.forget(first.token);
  forgotten.kill();
  running.kill();
  begun.get_future().get();
  std::thread releasing([&] { mayEnd.set_value(); });
  watch.forget(second.token);
  EXPECT_TRUE(over);
  releasing.join();
}

TEST(PidfdWatch, aCallMayForgetItself) {
  Child child;
  PidfdWatch watch;
  std::promise<std::uint64_t> token;
  std::promise<void> done;
  const auto watched = watch.watch(child.pid(), [&] {
    watch.forget(token.get_future().get());
    done.set_value();
  });
  token.set_value(watched.token);
  child.kill();
  done.get_future().get();
}

}  // namespace
}  // namespace sorvane::platform
