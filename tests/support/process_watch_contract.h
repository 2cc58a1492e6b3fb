#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <utility>

#include "proxy/process_watch.h"

// What every adapter that watches processes keeps to; a test program instantiates it with each of its own.

namespace sorvane::test {

using WatchState = proxy::ProcessWatch::State;

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

template <typename Watch>
class ProcessWatchContract : public ::testing::Test {};
TYPED_TEST_SUITE_P(ProcessWatchContract);

TYPED_TEST_P(ProcessWatchContract, tellsOfEachProcessOnceItEnds) {
  Child first, second;
  std::promise<void> firstEnded, secondEnded;
  TypeParam watch;
  EXPECT_EQ(watch.watch(first.pid(), [&] { firstEnded.set_value(); }).state, WatchState::watching);
  EXPECT_EQ(watch.watch(second.pid(), [&] { secondEnded.set_value(); }).state, WatchState::watching);
  second.kill();
  secondEnded.get_future().get();
  EXPECT_EQ(firstEnded.get_future().wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  EXPECT_EQ(watch.watch(second.pid(), [] { FAIL(); }).state, WatchState::gone);
  EXPECT_EQ(watch.watch(-5, [] { FAIL(); }).state, WatchState::impossible);
}

TYPED_TEST_P(ProcessWatchContract, aForgottenProcessIsNotToldAndACallThatRunsIsWaitedFor) {
  Child forgotten, running;
  TypeParam watch;
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

TYPED_TEST_P(ProcessWatchContract, aCallMayForgetItself) {
  Child child;
  TypeParam watch;
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

TYPED_TEST_P(ProcessWatchContract, aCallMayForgetItselfWhileTheWatchEnds) {
  Child child, other;
  auto owner = std::make_unique<TypeParam>();
  TypeParam& watch = *owner;
  std::promise<std::uint64_t> token;
  std::promise<void> begun, mayEnd;
  const auto watched = watch.watch(child.pid(), [&] {
    begun.set_value();
    mayEnd.get_future().get();
    watch.forget(token.get_future().get());
  });
  token.set_value(watched.token);
  child.kill();
  begun.get_future().get();
  // It waits for the call, and takes nothing more meanwhile.
  std::thread ending([&] { owner.reset(); });
  while (watch.watch(other.pid(), [] {}).state == WatchState::watching) std::this_thread::yield();
  mayEnd.set_value();
  ending.join();
}

TYPED_TEST_P(ProcessWatchContract, aProcessWatchedTwiceIsToldTwiceAndForgottenOnce) {
  Child child;
  std::promise<void> ended;
  TypeParam watch;
  const auto first = watch.watch(child.pid(), [] { FAIL(); });
  EXPECT_EQ(watch.watch(child.pid(), [&] { ended.set_value(); }).state, WatchState::watching);
  watch.forget(first.token);
  child.kill();
  ended.get_future().get();
}

REGISTER_TYPED_TEST_SUITE_P(ProcessWatchContract, tellsOfEachProcessOnceItEnds,
                            aForgottenProcessIsNotToldAndACallThatRunsIsWaitedFor, aCallMayForgetItself,
                            aCallMayForgetItselfWhileTheWatchEnds, aProcessWatchedTwiceIsToldTwiceAndForgottenOnce);

}  // namespace sorvane::test
