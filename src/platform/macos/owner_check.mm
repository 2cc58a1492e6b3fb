#include "platform/macos/owner_check.h"

#import <Foundation/Foundation.h>
#import <LocalAuthentication/LocalAuthentication.h>

#include <utility>

#include "base/mutex.h"
#include "platform/macos/owner_access_control.h"
#include "platform/macos/owner_question.h"

namespace sorvane::platform {

namespace {

LAPolicy policyOf(OwnerCheckPlan::By by) {
  return by == OwnerCheckPlan::By::biometryOrWatch ? LAPolicyDeviceOwnerAuthenticationWithBiometricsOrWatch
                                                   : LAPolicyDeviceOwnerAuthentication;
}

long codeOf(NSError* error) {
  return error != nil && [error.domain isEqualToString:LAErrorDomain] ? error.code : 0;
}

NSString* words(const std::string& text) {
  return [NSString stringWithUTF8String:text.c_str()];
}

}  // namespace

/// The question that is open, if any.
struct LocalOwnerCheck::Asked {
  using Question = std::shared_ptr<OwnerQuestion>;

  Question replace(LAContext* context, Question question) {
    LAContext* earlier = nil;
    {
      const base::Lock lock(mutex_);
      earlier = std::exchange(context_, context);
      question_.swap(question);
    }
    if (question) question->withdraw();
    // What it shows goes away; its reply still comes.
    [earlier invalidate];
    return question;
  }
  void withdraw() {
    LAContext* context = nil;
    {
      const base::Lock lock(mutex_);
      if (question_) question_->withdraw();
      context = context_;
    }
    [context invalidate];
  }

 private:
  // Guarded. Nothing is asked or answered while it is held.
  base::Mutex mutex_;
  LAContext* context_ GUARDED_BY(mutex_) = nil;
  Question question_ GUARDED_BY(mutex_);
};

LocalOwnerCheck::LocalOwnerCheck(OwnerCheckPurpose purpose) : purpose_(purpose), asked_(std::make_unique<Asked>()) {}

LocalOwnerCheck::~LocalOwnerCheck() {
  @autoreleasepool {
    if (const auto question = asked_->replace(nil, nullptr)) question->end();
  }
}

std::optional<std::string> LocalOwnerCheck::unavailable() {
  @autoreleasepool {
    NSError* error = nil;
    const bool isPossible = [[[LAContext alloc] init] canEvaluatePolicy:LAPolicyDeviceOwnerAuthentication error:&error];
    return isPossible ? std::nullopt : obstacleOf(codeOf(error));
  }
}

void LocalOwnerCheck::ask(Check check, const std::string& reason, Reply reply) {
  @autoreleasepool {
    const auto question = std::make_shared<OwnerQuestion>(std::move(reply));
    LAContext* const context = [[LAContext alloc] init];
    if (const auto earlier = asked_->replace(context, question)) earlier->end();

    const OwnerCheckPlan plan = planOf(check, purpose_);
    if (plan.fallbackTitle) context.localizedFallbackTitle = words(std::string(*plan.fallbackTitle));
    const auto text = promptText(reason);
    // Nobody says yes to a question without words.
    if (!text) return question->answer(Failed{});
    void (^const done)(BOOL, NSError*) = ^(BOOL isGranted, NSError* error) {
      question->answer(answerOf({.isGranted = isGranted == YES, .code = codeOf(error)}));
    };
    if (plan.by == OwnerCheckPlan::By::accessControl) {
      const auto control = ownerAccessControl();
      if (!control) return question->answer(Failed{});
      [context evaluateAccessControl:control.get()
                           operation:LAAccessControlOperationUseItem
                     localizedReason:words(*text)
                               reply:done];
      return;
    }
    const LAPolicy policy = policyOf(plan.by);
    NSError* error = nil;
    if (plan.looksFirst && ![context canEvaluatePolicy:policy error:&error]) {
      return question->answer(answerOf({.isGranted = false, .code = codeOf(error)}));
    }
    [context evaluatePolicy:policy localizedReason:words(*text) reply:done];
  }
}

void LocalOwnerCheck::withdraw() {
  @autoreleasepool {
    asked_->withdraw();
  }
}

}  // namespace sorvane::platform
