#include <IOKit/IOMessage.h>
#include <gtest/gtest.h>

#include "apple/fake/mac.h"
#include "apple/objc/fake.h"
#include "platform/macos/login_session.h"
#include "platform/macos/owner_check.h"
#include "platform/macos/owner_hardware.h"

namespace sorvane::test {
namespace {

using apple::FakeMac;
using apple::FakeOwner;
using platform::LocalOwnerCheck;
using platform::OwnerCheckPurpose;
using unlock::OwnerPresence;
using Check = OwnerPresence::Check;
using State = unlock::SessionState;

class OwnerCheck : public ::testing::Test {
 protected:
  FakeMac mac_;
  FakeOwner owner_;
  std::vector<std::string> answers_;
  LocalOwnerCheck check_;

  OwnerPresence::Reply reply() {
    return [this](const OwnerPresence::Answer& answer) {
      if (std::holds_alternative<OwnerPresence::Granted>(answer)) answers_.emplace_back("granted");
      if (std::holds_alternative<OwnerPresence::Cancelled>(answer)) answers_.emplace_back("cancelled");
      const auto* const failed = std::get_if<OwnerPresence::Failed>(&answer);
      if (failed != nullptr) answers_.push_back("failed " + std::to_string(failed->code));
    };
  }
};

TEST_F(OwnerCheck, putsEachQuestionToThePolicyThatIsMeant) {
  LocalOwnerCheck approvals(OwnerCheckPurpose::approvals);
  check_.ask(Check::any, "Unlock sorvane", reply());
  check_.ask(Check::passwordOnly, "Unlock sorvane", reply());
  check_.ask(Check::presence, "Change your sorvane passphrase", reply());
  approvals.ask(Check::presence, "made up\nwants to read", reply());
  ASSERT_EQ(owner_.prompts.size(), 4U);
  const auto& shown = owner_.prompts;
  EXPECT_EQ(shown[0].policy, LAPolicyDeviceOwnerAuthenticationWithBiometricsOrWatch);
  EXPECT_EQ(shown[0].title, "");
  EXPECT_EQ(shown[0].reason, "Unlock sorvane");
  EXPECT_EQ(shown[1].policy, LAPolicyDeviceOwnerAuthentication);
  EXPECT_EQ(shown[1].title, "Use Password");
  EXPECT_EQ(shown[2].policy, 0);
  EXPECT_EQ(shown[2].operation, LAAccessControlOperationUseItem);
  EXPECT_EQ(shown[3].policy, LAPolicyDeviceOwnerAuthentication);
  EXPECT_EQ(shown[3].reason, "made up\nwants to read");
  // A context that was used once may say yes again without asking.
  for (std::size_t i = 1; i < shown.size(); ++i) EXPECT_NE(shown[i].context, shown[i - 1].context);
}

TEST_F(OwnerCheck, handsEachAnswerOn) {
  const auto asked = [&](const std::function<void(FakeOwner::Prompt&)>& answer) {
    answers_.clear();
    check_.ask(Check::any, "Unlock sorvane", reply());
    answer(owner_.prompts.back());
    return answers_;
  };
  using Words = std::vector<std::string>;
  EXPECT_EQ(asked([](auto& prompt) { prompt.answer(true, 0); }), Words{"granted"});
  EXPECT_EQ(asked([](auto& prompt) { prompt.answer(false, -1); }), Words{"failed -1"});
  EXPECT_EQ(asked([](auto& prompt) { prompt.answer(false, -2); }), Words{"cancelled"});
  EXPECT_EQ(asked([](auto& prompt) { prompt.answer(false, 0); }), Words{"failed 0"});
  // A number means what it means in its own domain alone.
  EXPECT_EQ(asked([](auto& prompt) { prompt.failElsewhere(-2); }), Words{"failed 0"});
}

TEST_F(OwnerCheck, showsNothingWhereItCanOnlyFail) {
  owner_.unable[LAPolicyDeviceOwnerAuthentication] = -5;
  check_.ask(Check::passwordOnly, "Unlock sorvane", reply());
  mac_.refusesAccessControl = true;
  check_.ask(Check::presence, "Unlock sorvane", reply());
  check_.ask(Check::any, "", reply());
  EXPECT_EQ(answers_, (std::vector<std::string>{"failed -5", "failed 0", "failed 0"}));
  EXPECT_TRUE(owner_.prompts.empty());
}

TEST_F(OwnerCheck, takesItsQuestionBack) {
  check_.withdraw();
  check_.ask(Check::any, "Unlock sorvane", reply());
  check_.withdraw();
  EXPECT_TRUE(owner_.prompts[0].isTakenBack);
  EXPECT_TRUE(answers_.empty());
  // A finger that was on the reader at that moment.
  owner_.prompts[0].answer(true, 0);
  EXPECT_EQ(answers_, std::vector<std::string>{"cancelled"});
}

TEST_F(OwnerCheck, aLaterQuestionAndTheEndTakeTheEarlierOneBack) {
  {
    LocalOwnerCheck check;
    check.ask(Check::any, "Unlock sorvane", reply());
    check.ask(Check::presence, "Change what opens sorvane", reply());
    EXPECT_TRUE(owner_.prompts[0].isTakenBack);
    EXPECT_EQ(answers_.size(), 1U);
  }
  EXPECT_TRUE(owner_.prompts[1].isTakenBack);
  for (auto& prompt : owner_.prompts) prompt.answer(true, 0);
  EXPECT_EQ(answers_, (std::vector<std::string>{"cancelled", "cancelled"}));
}

TEST_F(OwnerCheck, isUnavailableWithoutALoginPasswordAlone) {
  EXPECT_EQ(check_.unavailable(), std::nullopt);
  owner_.unable[LAPolicyDeviceOwnerAuthentication] = -8;
  EXPECT_EQ(check_.unavailable(), std::nullopt);
  owner_.unable[LAPolicyDeviceOwnerAuthentication] = -5;
  EXPECT_TRUE(check_.unavailable());
}

TEST_F(OwnerCheck, theHardwareIsWhatCanBeUsedNow) {
  using unlock::Biometry;
  owner_.biometry = 1;
  EXPECT_EQ(platform::ownerHardware(), (unlock::UnlockHardware{Biometry::touchID, true}));
  owner_.unable[LAPolicyDeviceOwnerAuthenticationWithWatch] = -11;
  EXPECT_EQ(platform::ownerHardware(), (unlock::UnlockHardware{Biometry::touchID, false}));
  // The lid is closed: the kind is known and cannot be used.
  owner_.unable[LAPolicyDeviceOwnerAuthenticationWithBiometrics] = -6;
  EXPECT_EQ(platform::ownerHardware(), (unlock::UnlockHardware{Biometry::none, false}));
}

class Workspace : public ::testing::Test {
 protected:
  FakeMac mac_;
  FakeOwner owner_;
  std::vector<State> told_;
  unlock::SessionSignals::Hold hold_;

  std::optional<State> observe(platform::WorkspaceSession& session) {
    apple::takeTimers();
    return session.observe([this](const State& state, const auto& hold) {
      told_.push_back(state);
      hold_ = hold;
    });
  }
};

TEST_F(Workspace, everyNoticeReachesTheObserver) {
  platform::WorkspaceSession session;
  ASSERT_EQ(observe(session), State{});
  const std::pair<NSNotificationName, State> notices[] = {
      {NSWorkspaceWillSleepNotification, {.asleep = true}},
      {NSWorkspaceDidWakeNotification, {}},
      {NSWorkspaceSessionDidResignActiveNotification, {.active = false}},
      {NSWorkspaceSessionDidBecomeActiveNotification, {}},
      {NSWorkspaceWillPowerOffNotification, {.poweringOff = true}},
  };
  for (const auto& [name, state] : notices) {
    apple::postWorkspaceNotice(name);
    EXPECT_EQ(told_.back(), state);
  }
  const auto timers = apple::takeTimers();
  ASSERT_EQ(timers.size(), 1U);
  EXPECT_EQ(timers[0].seconds, 120);
  timers[0].fire();
  EXPECT_EQ(told_.back(), State{});
  mac_.post("com.apple.screenIsLocked");
  EXPECT_EQ(told_.back(), State{.screenLocked = true});
}

TEST_F(Workspace, looksAgainWhereTheWindowServerLagsBehind) {
  platform::WorkspaceSession session;
  observe(session);
  mac_.post("com.apple.screenIsLocked");
  mac_.session = {{"CGSSessionScreenIsLocked", true}};
  mac_.post("com.apple.screenIsUnlocked");
  EXPECT_EQ(told_.back(), State{.screenLocked = true});
  for (int looks = 0; looks < 3; ++looks) {
    const auto timers = apple::takeTimers();
    ASSERT_EQ(timers.size(), 1U);
    EXPECT_EQ(timers[0].seconds, 0.5);
    if (looks == 2) mac_.session->clear();
    timers[0].fire();
  }
  EXPECT_EQ(told_.back(), State{});
  EXPECT_TRUE(apple::takeTimers().empty());
}

TEST_F(Workspace, sleepWaitsForTheObserver) {
  platform::WorkspaceSession session;
  observe(session);
  apple::postWorkspaceNotice(NSWorkspaceWillSleepNotification);
  mac_.power(kIOMessageSystemWillSleep, 5);
  EXPECT_EQ(told_.size(), 2U);
  EXPECT_TRUE(mac_.allowed().empty());
  hold_.reset();
  EXPECT_EQ(mac_.allowed().size(), 1U);
}

TEST_F(Workspace, nothingIsToldAfterItsEnd) {
  {
    platform::WorkspaceSession session;
    observe(session);
    EXPECT_EQ(apple::workspaceHearers(), 5U);
    apple::postWorkspaceNotice(NSWorkspaceWillPowerOffNotification);
  }
  EXPECT_EQ(apple::workspaceHearers(), 0U);
  const auto before = told_.size();
  mac_.post("com.apple.screenIsLocked");
  mac_.power(kIOMessageSystemWillSleep, 5);
  for (const auto& timer : apple::takeTimers()) timer.fire();
  EXPECT_EQ(told_.size(), before);
}

TEST_F(Workspace, outsideOfASessionNothingIsHeard) {
  mac_.session = std::nullopt;
  platform::WorkspaceSession session;
  EXPECT_EQ(observe(session), std::nullopt);
  EXPECT_EQ(apple::workspaceHearers(), 0U);
}

}  // namespace
}  // namespace sorvane::test
