#include "app/phone_presence.h"

#include <gtest/gtest.h>

#include <future>

#include "phone_double.h"
#include "unlock/serial_queue.h"
#include "unlock/unlock_error.h"

namespace sorvane::test {
namespace {

using unlock::OwnerPresence;
using Check = OwnerPresence::Check;
using Is = app::PhoneQuestions::Answer::Is;

class ScriptedSystem final : public OwnerPresence {
 public:
  std::optional<std::string> missing;
  Reply reply;
  int asked = 0, withdrawn = 0;

  std::optional<std::string> unavailable() override { return missing; }
  void ask(Check, const std::string&, Reply given) override {
    ++asked;
    reply = std::move(given);
  }
  void withdraw() override { ++withdrawn; }
};

/// Everything is called on one thread, as the lock does.
class PhonePresence : public ::testing::Test {
 protected:
  ~PhonePresence() override {
    thread_.run([this] { presence_.stop(); });
  }
  std::future<OwnerPresence::Answer> ask(std::string_view reason = unlock::kUnlockReason) {
    const auto answer = std::make_shared<std::promise<OwnerPresence::Answer>>();
    thread_.run([&] {
      presence_.ask(Check::any, std::string(reason), [answer](const auto& given) { answer->set_value(given); });
    });
    return answer->get_future();
  }
  void systemSays(const OwnerPresence::Answer& answer) {
    thread_.run([&] { system_.reply(answer); });
  }
  /// After what the thread was given to do before.
  int withdrawals() {
    int count = 0;
    thread_.run([&] { count = system_.withdrawn; });
    return count;
  }

  ScriptedSystem system_;
  ScriptedPhones phones_;
  bool mayAsk_ = true;
  unlock::SerialQueue thread_;
  app::PhonePresence presence_{{system_, phones_, thread_, [this] { return mayAsk_; }, [] { return "a test"; }}};
};

bool isGranted(const OwnerPresence::Answer& answer) {
  return std::holds_alternative<OwnerPresence::Granted>(answer);
}

TEST_F(PhonePresence, theFirstAnswerCountsAndTheOtherQuestionIsWithdrawn) {
  auto byPhone = ask();
  const auto question = phones_.question();
  EXPECT_EQ(question.kind, phone::ApprovalDetails::Kind::unlock);
  EXPECT_EQ(question.requestor, "a test");
  phones_.say(Is::yes);
  EXPECT_TRUE(isGranted(byPhone.get()));
  EXPECT_EQ(withdrawals(), 1);
  auto no = ask();
  phones_.question();
  phones_.say(Is::no);
  EXPECT_TRUE(std::holds_alternative<OwnerPresence::Cancelled>(no.get()));
  auto bySystem = ask();
  phones_.question();
  systemSays(OwnerPresence::Granted{});
  EXPECT_TRUE(isGranted(bySystem.get()));
  phones_.waitForNone();
}

TEST_F(PhonePresence, aCheckThatCouldNotBeMadeWaitsForThePhoneAndIsTheAnswerWhenNoneCame) {
  const OwnerPresence::Failed notShown{OwnerPresence::Failed::kNotInteractive, "There is no agent."};
  auto byPhone = ask();
  phones_.question();
  systemSays(notShown);
  phones_.say(Is::yes);
  EXPECT_TRUE(isGranted(byPhone.get()));
  auto byNobody = ask();
  phones_.question();
  phones_.say(Is::none);
  systemSays(notShown);
  EXPECT_EQ(std::get<OwnerPresence::Failed>(byNobody.get()).explanation, "There is no agent.");
  auto refused = ask();
  phones_.question();
  systemSays(OwnerPresence::Failed{OwnerPresence::Failed::kNotAccepted, {}});
  EXPECT_EQ(std::get<OwnerPresence::Failed>(refused.get()).code, OwnerPresence::Failed::kNotAccepted);
}

TEST_F(PhonePresence, thePhoneStandsInWhereTheSystemCanAskNobodyAndOnlyForUnlocking) {
  system_.missing = "Install polkit.";
  EXPECT_EQ(presence_.unavailable(), "Install polkit.");
  EXPECT_EQ(presence_.unlockUnavailable(), std::nullopt);
  auto alone = ask();
  phones_.question();
  EXPECT_EQ(system_.asked, 0);
  phones_.say(Is::yes);
  EXPECT_TRUE(isGranted(alone.get()));
  phones_.connected = false;
  EXPECT_EQ(presence_.unlockUnavailable(), "Install polkit.");

  system_.missing.reset();
  phones_.connected = true;
  auto setting = ask(unlock::kRemoveReason);
  EXPECT_EQ(system_.asked, 1);
  systemSays(OwnerPresence::Granted{});
  EXPECT_TRUE(isGranted(setting.get()));
  mayAsk_ = false;
  auto password = ask();
  EXPECT_EQ(system_.asked, 2);
  systemSays(OwnerPresence::Granted{});
  EXPECT_TRUE(isGranted(password.get()));
}

TEST_F(PhonePresence, aPhoneVouchesForItsOwnerOnlyWhereThePolicyLetsItsYesCount) {
  for (const auto yes : {app::PhoneYes::vouches, app::PhoneYes::opens}) {
    phones_.yes = yes;
    auto byPhone = ask();
    phones_.question();
    phones_.say(Is::yes);
    EXPECT_TRUE(isGranted(byPhone.get()));
    EXPECT_EQ(presence_.isVouchedFor(), yes == app::PhoneYes::vouches);
  }
  auto no = ask();
  phones_.question();
  phones_.say(Is::no);
  no.get();
  EXPECT_FALSE(presence_.isVouchedFor());
  phones_.yes = app::PhoneYes::none;
  auto bySystem = ask();
  systemSays(OwnerPresence::Granted{});
  EXPECT_TRUE(isGranted(bySystem.get()));
  EXPECT_TRUE(presence_.isVouchedFor());
  phones_.waitForNone();
  EXPECT_EQ(phones_.timesAsked(), 3);
  system_.missing = "Install polkit.";
  EXPECT_EQ(presence_.unlockUnavailable(), "Install polkit.");
}

TEST_F(PhonePresence, aWithdrawnQuestionLeavesThePhoneAndALateAnswerDisturbsNothing) {
  ask();
  phones_.question();
  thread_.run([this] { presence_.withdraw(); });
  phones_.waitForNone();
  EXPECT_EQ(withdrawals(), 1);
  auto next = ask();
  phones_.question();
  systemSays(OwnerPresence::Granted{});
  EXPECT_TRUE(isGranted(next.get()));
  EXPECT_EQ(withdrawals(), 1);
}

}  // namespace
}  // namespace sorvane::test
