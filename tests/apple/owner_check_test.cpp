#include <gtest/gtest.h>

#include <future>
#include <memory>

#include "apple/fake/mac.h"
#include "platform/macos/owner_access_control.h"
#include "platform/macos/owner_check_rules.h"
#include "platform/macos/owner_question.h"
#include "unlock/unlock_error.h"

namespace sorvane::test {
namespace {

using platform::OwnerCheckPlan;
using platform::OwnerCheckPurpose;
using platform::OwnerQuestion;
using unlock::OwnerPresence;
using Answer = OwnerPresence::Answer;
using By = OwnerCheckPlan::By;
using Check = OwnerPresence::Check;

std::string named(const Answer& answer) {
  if (std::holds_alternative<OwnerPresence::Granted>(answer)) return "granted";
  if (std::holds_alternative<OwnerPresence::Cancelled>(answer)) return "cancelled";
  return "failed " + std::to_string(std::get<OwnerPresence::Failed>(answer).code);
}

TEST(OwnerCheckRules, eachCheckOfTheLockIsADifferentQuestion) {
  const auto plan = [](Check check) { return planOf(check, OwnerCheckPurpose::lock); };
  // An empty title takes the button away; none at all would leave the system's.
  EXPECT_EQ(plan(Check::any), (OwnerCheckPlan{.by = By::biometryOrWatch, .fallbackTitle = ""}));
  EXPECT_EQ(plan(Check::passwordOnly),
            (OwnerCheckPlan{.by = By::ownerAuthentication, .fallbackTitle = "Use Password", .looksFirst = true}));
  EXPECT_EQ(plan(Check::presence), (OwnerCheckPlan{.by = By::accessControl}));
}

TEST(OwnerCheckRules, aRequestOfAnAgentIsPutToWhateverTheSystemTakesForItsOwner) {
  for (const Check check : {Check::any, Check::passwordOnly, Check::presence}) {
    EXPECT_EQ(planOf(check, OwnerCheckPurpose::approvals), (OwnerCheckPlan{.by = By::ownerAuthentication}));
  }
}

TEST(OwnerCheckRules, thePersonReadsWhatTheSystemsCodeMeans) {
  constexpr char kUnshown[] = "Your Mac could not show the unlock prompt. Try again.";
  struct Row {
    long code;
    std::string answer, begins;
  };
  const Row rows[] = {
      {-1, "failed -1", "Your Mac did not accept that. Try again."},
      {-2, "cancelled", ""},
      {-3, "failed -3", kUnshown},
      {-4, "failed -4", kUnshown},
      {-5, "failed -5", "This Mac has no login password set, so it cannot ask for one."},
      {-6, "failed -6", kUnshown},
      {-8, "failed -8", kUnshown},
      {-9, "failed -9", kUnshown},
      {-10, "failed -10", kUnshown},
      {-11, "failed -11", kUnshown},
      {-1004, "failed -1004", kUnshown},
      {0, "failed 0", kUnshown},
      {-128, "failed -128", kUnshown},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.code);
    const Answer answer = platform::answerOf({.isGranted = false, .code = row.code});
    EXPECT_EQ(named(answer), row.answer);
    const auto* const failed = std::get_if<OwnerPresence::Failed>(&answer);
    if (failed == nullptr) continue;
    const auto error = unlock::UnlockError::systemCheckFailed({failed->code, false, failed->explanation});
    EXPECT_TRUE(error.sentence().starts_with(row.begins)) << error.sentence();
    EXPECT_EQ(error.sentence().back(), '.');
  }
  EXPECT_EQ(named(platform::answerOf({.isGranted = true, .code = -1})), "granted");
}

TEST(OwnerCheckRules, onlyAMissingPasswordMakesTheCheckUnavailable) {
  EXPECT_EQ(platform::obstacleOf(-5),
            "This Mac has no login password set, so it cannot ask for one. Set one in System Settings > Users & "
            "Groups.");
  // What passes, or concerns a finger alone, is the answer of one question.
  for (const long code : {0L, -4L, -6L, -7L, -8L, -11L, -1004L}) EXPECT_EQ(platform::obstacleOf(code), std::nullopt);
}

TEST(OwnerCheckRules, aReasonIsShownLineByLineAndNeverEmpty) {
  EXPECT_EQ(platform::promptText("Unlock sorvane"), "Unlock sorvane");
  EXPECT_EQ(platform::promptText("Reset sorvane’s unlock settings\nWord: made\x1bup"),
            "Reset sorvane’s unlock settings\nWord: made\\x1bup");
  EXPECT_TRUE(platform::promptText("not UTF-8 \xff"));
  for (const char* const empty : {"", " ", "\n \n"}) EXPECT_EQ(platform::promptText(empty), std::nullopt);
}

TEST(OwnerAccessControl, isGuardedByTheLoginPasswordOnThisComputer) {
  apple::FakeMac mac;
  EXPECT_TRUE(platform::ownerAccessControl());
  EXPECT_EQ(mac.accessControl, (std::pair<std::string, unsigned long>("whenUnlockedThisDeviceOnly", 16)));
  mac.refusesAccessControl = true;
  EXPECT_FALSE(platform::ownerAccessControl());
}

struct Answers {
  std::vector<std::string> all;
  OwnerPresence::Reply reply() {
    return [this](const Answer& answer) { all.push_back(named(answer)); };
  }
};

TEST(OwnerQuestion, isAnsweredOnce) {
  Answers answers;
  OwnerQuestion question(answers.reply());
  question.answer(OwnerPresence::Granted{});
  question.answer(OwnerPresence::Failed{-1});
  question.withdraw();
  question.end();
  EXPECT_EQ(answers.all, std::vector<std::string>{"granted"});
}

TEST(OwnerQuestion, aYesToAWithdrawnQuestionIsNone) {
  Answers answers;
  OwnerQuestion question(answers.reply());
  question.withdraw();
  EXPECT_TRUE(answers.all.empty());
  question.answer(OwnerPresence::Granted{});
  EXPECT_EQ(answers.all, std::vector<std::string>{"cancelled"});
}

TEST(OwnerQuestion, aYesAfterTheEndReachesNobody) {
  auto held = std::make_shared<int>();
  std::vector<std::string> all;
  OwnerQuestion question([&all, held](const Answer& answer) { all.push_back(named(answer)); });
  question.end();
  EXPECT_EQ(all, std::vector<std::string>{"cancelled"});
  EXPECT_EQ(held.use_count(), 1) << "the reply is kept";
  question.answer(OwnerPresence::Granted{});
  EXPECT_EQ(all.size(), 1U);
}

TEST(OwnerQuestion, theEndWaitsForAReplyUnderWayAndWhatItHolds) {
  std::promise<void> begun, mayGoOn;
  std::atomic<bool> isOver = false;
  auto held = std::shared_ptr<void>(nullptr, [&](void*) {
    begun.set_value();
    mayGoOn.get_future().wait();
    isOver = true;
  });
  OwnerQuestion question([held = std::move(held)](const Answer&) {});
  std::thread system([&] { question.answer(OwnerPresence::Granted{}); });
  begun.get_future().wait();
  auto end = std::async(std::launch::async, [&] {
    question.end();
    return isOver.load();
  });
  EXPECT_EQ(end.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  mayGoOn.set_value();
  EXPECT_TRUE(end.get());
  system.join();
}

TEST(OwnerQuestion, canBeEndedByItsOwnReply) {
  std::unique_ptr<OwnerQuestion> question;
  int replies = 0;
  question = std::make_unique<OwnerQuestion>([&](const Answer&) {
    ++replies;
    question->end();
  });
  question->answer(OwnerPresence::Granted{});
  EXPECT_EQ(replies, 1);
}

}  // namespace
}  // namespace sorvane::test
