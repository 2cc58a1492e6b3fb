#pragma once

#include <optional>
#include <string>

#include "app/phone_questions.h"
#include "base/mutex.h"

namespace sorvane::test {

/// Paired phones that say what the test has them say.
class ScriptedPhones final : public app::PhoneQuestions {
 public:
  bool served = true, connected = true;
  app::PhoneYes yes = app::PhoneYes::vouches;

  bool isServed() const override { return served; }
  bool isConnected() const override { return connected; }
  app::PhoneYes unlockingYes() override { return yes; }
  Answer ask(const phone::ApprovalDetails& details, const std::stop_token& withdrawn, Yes kind) override {
    base::Lock lock(mutex_);
    asked_ = details;
    ++timesAsked_;
    changed_.notify_all();
    changed_.wait(lock.mutex(), withdrawn, [this, kind]() REQUIRES(mutex_) {
      if (kind == Yes::doesNotCount && answer_ && answer_->is == Answer::Is::yes) {
        answer_.reset();
        ++timesHeard_;
        changed_.notify_all();
      }
      return answer_.has_value();
    });
    asked_.reset();
    changed_.notify_all();
    const auto answer = std::exchange(answer_, std::nullopt);
    return answer.value_or(Answer{});
  }

  /// Blocks until a question stands.
  phone::ApprovalDetails question() {
    base::Lock lock(mutex_);
    changed_.wait(lock.mutex(), [this]() REQUIRES(mutex_) { return asked_.has_value(); });
    return *asked_;
  }
  /// Blocks until none does.
  void waitForNone() {
    base::Lock lock(mutex_);
    changed_.wait(lock.mutex(), [this]() REQUIRES(mutex_) { return !asked_; });
  }
  /// Blocks until a yes was heard that does not count.
  void waitUntilHeard() {
    base::Lock lock(mutex_);
    changed_.wait(lock.mutex(), [this]() REQUIRES(mutex_) { return timesHeard_ > 0; });
  }
  int timesAsked() {
    const base::Lock lock(mutex_);
    return timesAsked_;
  }
  void say(Answer::Is is) {
    const base::Lock lock(mutex_);
    answer_ = Answer{is, "Pocket", {}};
    changed_.notify_all();
  }

 private:
  base::Mutex mutex_;
  base::Condition changed_;
  std::optional<phone::ApprovalDetails> asked_ GUARDED_BY(mutex_);
  std::optional<Answer> answer_ GUARDED_BY(mutex_);
  int timesAsked_ GUARDED_BY(mutex_) = 0, timesHeard_ GUARDED_BY(mutex_) = 0;
};

}  // namespace sorvane::test
