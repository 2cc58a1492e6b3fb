#include "app/owner_asker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "phone_double.h"

namespace sorvane::test {
namespace {

using agent::ApprovalContext;
using agent::Approver;
using agent::OwnerApprovalPrompt;
using Is = app::PhoneQuestions::Answer::Is;

/// A terminal with a question on it until the test answers or the question goes.
class ScriptedTerminal final : public agent::ApprovalProvider {
 public:
  std::optional<bool> ask(const OwnerApprovalPrompt&, const ApprovalContext& context) override {
    base::Lock lock(mutex_);
    isAsked_ = true;
    changed_.notify_all();
    changed_.wait(lock.mutex(), context.withdrawn, [this]() REQUIRES(mutex_) { return answer_.has_value(); });
    isAsked_ = false;
    wasElsewhere = context.answeredElsewhere.stop_requested();
    return std::exchange(answer_, std::nullopt).value_or(std::nullopt);
  }
  void waitForQuestion() {
    base::Lock lock(mutex_);
    changed_.wait(lock.mutex(), [this]() REQUIRES(mutex_) { return isAsked_; });
  }
  void say(std::optional<bool> answer) {
    const base::Lock lock(mutex_);
    answer_ = answer;
    changed_.notify_all();
  }
  bool wasElsewhere = false;

 private:
  base::Mutex mutex_;
  base::Condition changed_;
  bool isAsked_ GUARDED_BY(mutex_) = false;
  std::optional<std::optional<bool>> answer_ GUARDED_BY(mutex_);
};

class OwnerAsker : public ::testing::Test {
 protected:
  std::future<std::optional<bool>> ask(Approver whose, bool withTerminal = true) {
    return std::async(std::launch::async, [this, whose, withTerminal] {
      app::OwnerAsker asker({withTerminal ? &terminal_ : nullptr, phones_});
      ApprovalContext context = context_;
      context.whoseYesCounts = whose;
      return asker.ask(prompt_, context);
    });
  }
  std::optional<bool> askAlone(Approver whose, bool withTerminal) { return ask(whose, withTerminal).get(); }

  ScriptedTerminal terminal_;
  ScriptedPhones phones_;
  OwnerApprovalPrompt prompt_{OwnerApprovalPrompt::Kind::other, "An agent wants something", {}, {}, {}, {}, {}};
  ApprovalContext context_;
};

TEST_F(OwnerAsker, theFirstAnswerCountsAndTheQuestionGoesAwayElsewhere) {
  for (const bool answer : {true, false}) {
    auto byPhone = ask(Approver::any);
    terminal_.waitForQuestion();
    phones_.question();
    phones_.say(answer ? Is::yes : Is::no);
    EXPECT_EQ(byPhone.get(), answer);
    EXPECT_TRUE(terminal_.wasElsewhere);
    auto byTerminal = ask(Approver::any);
    terminal_.waitForQuestion();
    phones_.question();
    terminal_.say(answer);
    EXPECT_EQ(byTerminal.get(), answer);
    phones_.waitForNone();
  }
}

TEST_F(OwnerAsker, aYesThatDoesNotCountLeavesTheQuestionToWhoMayAndANoCountsFromAnywhere) {
  auto onTerminal = ask(Approver::terminal);
  terminal_.waitForQuestion();
  EXPECT_THAT(phones_.question().reason, ::testing::HasSubstr("Here you can only say no."));
  phones_.say(Is::yes);
  phones_.waitUntilHeard();
  phones_.question();
  terminal_.say(true);
  EXPECT_EQ(onTerminal.get(), true);

  auto denied = ask(Approver::terminal);
  terminal_.waitForQuestion();
  phones_.question();
  phones_.say(Is::no);
  EXPECT_EQ(denied.get(), false);

  // The terminal's approver gives no answer for a yes that does not count there.
  auto onPhone = ask(Approver::phone);
  terminal_.waitForQuestion();
  phones_.question();
  terminal_.say(std::nullopt);
  phones_.say(Is::yes);
  EXPECT_EQ(onPhone.get(), true);
}

TEST_F(OwnerAsker, whereNobodyCanAnswerNobodyIsWaitedFor) {
  struct Case {
    bool terminal, served, connected;
    Approver whose;
  };
  for (const Case& test : {Case{false, false, false, Approver::any}, Case{false, true, false, Approver::any},
                           Case{true, false, false, Approver::phone}, Case{false, true, true, Approver::terminal},
                           Case{true, true, true, Approver::system}}) {
    phones_.served = test.served;
    phones_.connected = test.connected;
    EXPECT_EQ(askAlone(test.whose, test.terminal), std::nullopt);
  }
}

TEST_F(OwnerAsker, aWithdrawnQuestionGoesAwayEverywhereAndHasNoAnswer) {
  std::stop_source gone;
  context_.withdrawn = gone.get_token();
  auto asked = ask(Approver::any);
  terminal_.waitForQuestion();
  phones_.question();
  gone.request_stop();
  EXPECT_EQ(asked.get(), std::nullopt);
  phones_.waitForNone();
  EXPECT_FALSE(terminal_.wasElsewhere);
}

TEST_F(OwnerAsker, thePhoneShowsAllThatTheTerminalWouldWithTheCallersWordsMarked) {
  context_.label = "Test agent";
  context_.processes = {{42, 1, "node", 7}};
  context_.commandWords = {"sh", "-c", "true\nFolder: \"/safe\""};
  context_.directory = "/work";
  context_.details = {"Raw values leave the vault."};
  prompt_.requestor = "a\nhelper\" (sorvane)";
  prompt_.kind = OwnerApprovalPrompt::Kind::useEnvironment;
  prompt_.subject = "shop\x1b[2K";
  prompt_.declaredTarget = "a\nb";
  prompt_.allowedTargets = {{"c\nd"}};
  prompt_.version = 3;
  const auto details = app::phoneQuestion(prompt_, context_);
  ASSERT_TRUE(details);
  EXPECT_EQ(details->kind, phone::ApprovalDetails::Kind::useEnvironment);
  EXPECT_EQ(details->reason,
            "An agent wants something\nProcess: \"node\" (42)\nCommand: \"sh\" \"-c\" \"true\\nFolder: \\\"/safe\\\"\" "
            "(the caller's words)\nFolder: \"/work\"\nRaw values leave the vault.");
  EXPECT_EQ(details->requestor, "\"Test agent\", which says it is \"a\\nhelper\\\" (sorvane)\" (its own words)");
  EXPECT_THAT(*details->subject + *details->declaredTarget + details->allowedTargets->front(),
              ::testing::Not(::testing::ContainsRegex("[\x1b\n]")));
  prompt_.requestor = std::string(1000, 'x');
  EXPECT_LT(app::phoneQuestion(prompt_, context_)->requestor.size(), 300U) << "nothing else is pushed out of sight";
  EXPECT_EQ(details->version, 3);
}

TEST_F(OwnerAsker, aQuestionThatDoesNotFitIsNotPutToAPhone) {
  for (const char filler : {'x', '"'}) {
    context_.commandWords = {std::string(app::kLongestQuestion, filler)};
    EXPECT_FALSE(app::phoneQuestion(prompt_, context_));
  }
  EXPECT_EQ(askAlone(Approver::phone, true), std::nullopt);
  auto asked = ask(Approver::any);
  terminal_.waitForQuestion();
  terminal_.say(true);
  EXPECT_EQ(asked.get(), true);
}

}  // namespace
}  // namespace sorvane::test
