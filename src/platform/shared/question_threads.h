#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <thread>

namespace sorvane::platform {

/// QuestionThreads runs each question of an owner check on a thread of its own, so that whoever asks anew waits for
/// none that was taken back and still ends. Used by one thread.
class QuestionThreads {
 public:
  QuestionThreads() = default;
  /// Waits for all of them.
  ~QuestionThreads();
  QuestionThreads(const QuestionThreads&) = delete;
  QuestionThreads& operator=(const QuestionThreads&) = delete;

  /// `question` takes no signals and throws nothing.
  void start(std::function<void()> question);

 private:
  struct Running {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> hasEnded;
  };
  std::list<Running> running_;
};

}  // namespace sorvane::platform
