#include "unlock/lock_manager.h"

#include <future>

#include "unlock/lock_manager_fixture.h"
#include "unlock/serial_queue.h"

namespace sorvane::test {
namespace {

using namespace unlock;
using namespace std::chrono_literals;
using Words = std::vector<std::string>;
using Check = OwnerPresence::Check;
using Requirement = PassphraseRequirement;
using Case = UnlockError::Case;

constexpr auto kCancelled = "Couldn’t verify. Try again.";
constexpr auto kWrongText = "Wrong passphrase.";
constexpr auto kNoPrompt = "Your Mac could not show the unlock prompt. Try again.";

class UnlockingTheVault : public LockManagerFixture {
 protected:
  void SetUp() override { signals_.reported.reset(); }
};

TEST_F(UnlockingTheVault, offersTheFirstMethodThereIsAndThePasswordBesideIt) {
  const struct {
    UnlockHardware hardware;
    UnlockChoices choices;
    Check primary;
  } cases[] = {
      {{}, {PasswordMethod{}, false, false}, Check::passwordOnly},
      {{Biometry::none, true}, {WatchMethod{}, true, false}, Check::any},
      {{Biometry::touchID, false}, {BiometryMethod{Biometry::touchID}, true, false}, Check::any},
      {{Biometry::faceID, true}, {BiometryMethod{Biometry::faceID}, true, true}, Check::any},
  };
  for (const auto& [hardware, choices, primary] : cases) {
    hardware_ = hardware;
    manager_.reset();
    EXPECT_EQ(manager().prompt(), LockManager::Prompt(LockManager::SystemPrompt{choices}));
    askSystem(LockManager::Button::primary);
    EXPECT_EQ(presence_.questions.back().check, primary);
    askSystem(LockManager::Button::password);
    EXPECT_EQ(presence_.questions.back().check, Check::passwordOnly);
  }
  EXPECT_EQ(presence_.questions.front().reason, "Unlock sorvane");
}

TEST_F(UnlockingTheVault, opensWithTheSystemCheckAloneWithoutAPassphrase) {
  const std::pair<OwnerPresence::Answer, std::string> failures[] = {
      {OwnerPresence::Cancelled{}, kCancelled},
      {OwnerPresence::Failed{-1}, "Your Mac did not accept that. Try again."},
      {OwnerPresence::Failed{-5}, "This Mac has no login password set, so it cannot ask for one."},
      {OwnerPresence::Failed{-1004}, "Your Mac could not show the password prompt. Try again."},
  };
  for (const auto& [given, sentence] : failures) {
    askSystem();
    answer(given);
    EXPECT_EQ(ended(), Words{sentence});
    EXPECT_FALSE(manager().isUnlocked());
  }
  askSystem();
  granted();
  EXPECT_EQ(ended(), Words{"opened"});
  EXPECT_TRUE(manager().openedBySystemCheck());
  manager().lock();
  manager().lock();
  EXPECT_EQ(changes_, (std::vector<bool>{true, false}));
  EXPECT_FALSE(manager().openedBySystemCheck());
}

TEST_F(UnlockingTheVault, wantsSystemAndPassphraseInThatOrderWhereBothAreRequired) {
  havePassphrase(Requirement::withSystem);
  give(kRight);
  EXPECT_EQ(ended(), Words{kCancelled});
  askSystem();
  granted();
  EXPECT_EQ(ended(), Words{"needs passphrase"});
  EXPECT_EQ(manager().prompt(), LockManager::Prompt(LockManager::PassphrasePrompt{}));
  give(kWrong);
  EXPECT_TRUE(manager().checkingPassphrase());
  EXPECT_EQ(ended(), Words{kWrongText});
  // A failure ends the attempt: the system is asked anew.
  give(kRight);
  EXPECT_EQ(ended(), Words{kCancelled});
  askSystem();
  granted();
  EXPECT_EQ(ended(), Words{"needs passphrase"});
  clock_.advance(2min + 1s);
  EXPECT_NE(manager().prompt(), LockManager::Prompt(LockManager::PassphrasePrompt{}));
  give(kRight);
  EXPECT_EQ(ended(), Words{kCancelled});
  askSystem();
  granted();
  clock_.advance(2min);
  give(kRight);
  EXPECT_EQ(ended(), (Words{"needs passphrase", "opened"}));
  EXPECT_TRUE(manager().openedBySystemCheck());
}

TEST_F(UnlockingTheVault, asksNobodyElseWhereThePassphraseAloneOpens) {
  havePassphrase(Requirement::only);
  EXPECT_EQ(manager().prompt(), LockManager::Prompt(LockManager::PassphrasePrompt{}));
  askSystem();
  EXPECT_EQ(ended(), Words{"needs passphrase"});
  give("");
  give(kRight);  // refused: one at a time
  EXPECT_EQ(ended(), (Words{kCancelled, kWrongText}));
  give(kRight);
  EXPECT_EQ(ended(), Words{"opened"});
  EXPECT_TRUE(presence_.questions.empty());
  EXPECT_FALSE(manager().openedBySystemCheck());
}

TEST_F(UnlockingTheVault, makesThoseWhoGuessWaitAndComputesNothingMeanwhile) {
  havePassphrase(Requirement::only);
  for (int i = 0; i < 3; ++i) give(kWrong), settle();
  EXPECT_EQ(ended(), (Words{kWrongText, kWrongText, kWrongText}));
  EXPECT_EQ(store_.stored.failedAttempts, 3);
  give(kRight);
  EXPECT_EQ(work_.waiting(), 0U);
  EXPECT_EQ(ended(), Words{"Too many tries. Try again in 5 seconds."});
  // A restart and a clock set back do not help.
  manager_.reset();
  clock_.setWall(clock_.now() - 24h);
  give(kRight);
  EXPECT_EQ(ended(), Words{"Too many tries. Try again in 5 seconds."});
  clock_.advance(5s);
  give(kRight);
  EXPECT_EQ(ended(), Words{"opened"});
  EXPECT_EQ(store_.stored.failedAttempts, 0);
  EXPECT_FALSE(store_.stored.lastFailure);
}

TEST_F(UnlockingTheVault, countsAWrongPassphraseThoughItCouldNotBeSavedOrCameTooLate) {
  havePassphrase(Requirement::only);
  store_.failsToSave = true;
  for (int i = 0; i < 3; ++i) give(kWrong), settle();
  EXPECT_TRUE(manager().settings().unsaved());
  give(kRight);
  EXPECT_EQ(ended().back(), "Too many tries. Try again in 5 seconds.");
  store_.failsToSave = false;
  clock_.advance(5s);
  give(kWrong);
  manager().lock();
  EXPECT_EQ(ended(), Words{kWrongText});
  EXPECT_EQ(store_.stored.failedAttempts, 4);
  EXPECT_FALSE(manager().settings().unsaved());
}

TEST_F(UnlockingTheVault, discardsWhatComesAfterALockOrALaterAttempt) {
  askSystem();
  const auto late = presence_.questions.back().reply;
  askSystem();
  EXPECT_EQ(ended(), Words{kCancelled});
  EXPECT_EQ(presence_.withdrawn, 1);
  late(OwnerPresence::Granted{});
  settle();
  EXPECT_FALSE(manager().isUnlocked());
  const std::uint64_t generation = manager().state().generation;
  manager().lock();
  EXPECT_GT(manager().state().generation, generation);
  EXPECT_EQ(ended(), Words{kCancelled});
  granted();
  EXPECT_FALSE(manager().isUnlocked());
  EXPECT_EQ(ended(), Words{});

  havePassphrase(Requirement::only);
  store_.stored.failedAttempts = 2;
  manager_.reset();
  give(kRight);
  work_.runAll();
  manager().lock();
  EXPECT_EQ(ended(), Words{kCancelled});
  EXPECT_FALSE(manager().isUnlocked());
  // Nor does it take the count back.
  EXPECT_EQ(store_.stored.failedAttempts, 2);
  EXPECT_TRUE(changes_.empty());
}

TEST_F(UnlockingTheVault, takesBackWhatWhoeverAskedGaveUpAndClosesNothing) {
  askSystem();
  manager().giveUp();
  EXPECT_EQ(presence_.withdrawn, 1);
  askSystem();
  granted();
  manager().changeFollowsSession(false, {}, change());
  manager().giveUp();
  EXPECT_EQ(ended(), (Words{kCancelled, "opened", kCancelled}));
  EXPECT_TRUE(manager().openedBySystemCheck());
  EXPECT_TRUE(store_.stored.followsSession);
  havePassphrase(Requirement::only);
  manager_.reset();
  give(kRight);
  manager().giveUp();
  EXPECT_EQ(ended(), Words{kCancelled});
  EXPECT_FALSE(manager().isUnlocked());
  EXPECT_EQ(manager().waitSeconds(), 0);
  for (int i = 0; i < 3; ++i) give(kWrong), settle();
  EXPECT_EQ(manager().waitSeconds(), 5);
}

TEST_F(UnlockingTheVault, endsEveryOpenQuestionWhenTheManagerGoes) {
  askSystem();
  havePassphrase(Requirement::only);
  manager_.reset();
  EXPECT_EQ(ended(), Words{kCancelled});
  presence_.questions.back().reply(OwnerPresence::Granted{});
  give(kRight);
  manager_.reset();
  EXPECT_EQ(ended(), Words{});
}

TEST_F(UnlockingTheVault, saysWhatToDoWhereNobodyCanBeAsked) {
  presence_.sentence = "Install what is missing.";
  EXPECT_EQ(manager().prompt(), LockManager::Prompt(LockManager::UnavailablePrompt{"Install what is missing."}));
  bool said = true;
  manager().confirm("Show it", [&](bool yes) { said = yes; });
  answer(OwnerPresence::Failed{-1004});
  EXPECT_FALSE(said);
}

class SettingsThatCannotBeRead : public LockManagerFixture {};

TEST_F(SettingsThatCannotBeRead, keepTheVaultLockedUntilTheOwnerResetsThem) {
  for (const Case cause : {Case::settingsMissing, Case::settingsDamaged, Case::vaultKeyMismatch}) {
    manager_.reset();
    changes_.clear();
    havePassphrase(Requirement::only);
    store_.loadFailure = cause;
    const std::string sentence = UnlockError(cause).sentence();
    EXPECT_EQ(manager().prompt(), LockManager::Prompt(LockManager::ResetPrompt{sentence}));
    askSystem();
    give(kRight);
    EXPECT_EQ(ended(), (Words{sentence, sentence}));
    manager().reset(outcome());
    EXPECT_EQ(presence_.questions.back().reason, "Reset sorvane’s unlock settings");
    EXPECT_EQ(presence_.questions.back().check, Check::presence);
    answer(OwnerPresence::Cancelled{});
    EXPECT_EQ(ended(), Words{kCancelled});
    EXPECT_EQ(store_.stored.requirement, Requirement::only);
    manager().reset(outcome());
    granted();
    EXPECT_EQ(ended(), Words{"opened"});
    UnlockConfiguration fresh;
    fresh.resetCause = cause;
    EXPECT_EQ(store_.stored, fresh);
    EXPECT_EQ(changes_, std::vector<bool>{true});
    // Neither a lock, nor another passphrase, nor a new start makes it forgotten.
    manager().setPassphrase(twice(kRight), Requirement::only, change());
    granted();
    manager().lock();
    give(kRight);
    EXPECT_EQ(ended(), (Words{"done", "opened"}));
    manager_.reset();
    give(kRight);
    EXPECT_EQ(ended(), Words{"opened"});
    EXPECT_EQ(manager().settings().resetCause(), UnlockError(cause));
    EXPECT_EQ(manager().restored(), std::nullopt);
    EXPECT_EQ(manager().settings().resetCause(), std::nullopt);
    EXPECT_EQ(store_.stored.resetCause, std::nullopt);
  }
}

TEST_F(SettingsThatCannotBeRead, holdTheVaultLockedWhenTheResetFails) {
  store_.loadFailure = Case::settingsDamaged;
  store_.failsToSave = true;
  manager().reset(outcome());
  granted();
  EXPECT_EQ(ended(), Words{"sorvane couldn’t read or save its unlock settings in the Keychain."});
  EXPECT_TRUE(manager().state().heldLocked);
  store_.failsToSave = false;
  presence_.sentence = "Install what is missing.";
  manager().reset(outcome());
  answerAt(terminal_, OwnerPresence::Granted{});
  EXPECT_EQ(ended(), Words{"opened"});
  EXPECT_FALSE(manager().state().heldLocked);
  EXPECT_FALSE(manager().openedBySystemCheck());
}

TEST_F(SettingsThatCannotBeRead, areReadAgainWhereTheStoreMayHaveOpened) {
  store_.loadFailure = Case::storage;
  EXPECT_EQ(manager().prompt(), LockManager::Prompt(LockManager::UnavailablePrompt{UnlockError(Case::storage).what()}));
  manager().reset(outcome());
  askSystem();
  EXPECT_EQ(ended(), (Words{kCancelled, UnlockError(Case::storage).what()}));
  store_.loadFailure.reset();
  askSystem();
  granted();
  EXPECT_EQ(ended(), Words{"opened"});
}

TEST_F(SettingsThatCannotBeRead, holdTheVaultLockedWhereTheStoreLostItsKey) {
  store_.lost = "The key is gone. Restore a backup.";
  EXPECT_EQ(manager().prompt(), LockManager::Prompt(LockManager::UnavailablePrompt{*store_.lost}));
  EXPECT_TRUE(manager().state().heldLocked);
  askSystem();
  manager().reset(outcome());
  EXPECT_EQ(ended(), (Words{*store_.lost, kCancelled}));
  // Once it is back the owner opens it, and not the session.
  store_.lost.reset();
  tell({.screenLocked = true});
  tell({});
  EXPECT_FALSE(manager().isUnlocked());
  askSystem();
  granted();
  EXPECT_EQ(ended(), Words{"opened"});
}

class FollowingTheSession : public LockManagerFixture {};

TEST_F(FollowingTheSession, opensWithItAndClosesForEveryWayToLeaveIt) {
  manager();
  EXPECT_EQ(changes_, std::vector<bool>{true});
  EXPECT_FALSE(manager().openedBySystemCheck());
  const SessionState ways[] = {{.active = false}, {.screenLocked = true}, {.asleep = true}, {.poweringOff = true}};
  for (const SessionState& away : ways) {
    changes_.clear();
    tell(away);
    EXPECT_EQ(changes_, std::vector<bool>{false});
    EXPECT_EQ(manager().prompt(),
              LockManager::Prompt(LockManager::UnavailablePrompt{std::string(kSessionUnavailable)}));
    askSystem();
    EXPECT_EQ(ended(), Words{std::string(kSessionUnavailable)});
    tell({});
    EXPECT_EQ(changes_, (std::vector<bool>{false, true}));
  }
  tell({.screenLocked = true, .asleep = true});
  tell({.screenLocked = true});
  EXPECT_FALSE(manager().isUnlocked());
}

TEST_F(FollowingTheSession, letsTheSystemSleepOnceTheVaultIsClosed) {
  manager();
  auto hold = std::make_shared<const int>(0);
  const std::weak_ptr<const int> held = hold;
  signals_.tell({.asleep = true}, std::move(hold));
  EXPECT_TRUE(manager().isUnlocked());
  EXPECT_FALSE(held.expired());
  manager().onUnlockChange = [&](bool) { EXPECT_FALSE(held.expired()); };
  EXPECT_TRUE(main_.runOne());
  EXPECT_FALSE(manager().isUnlocked());
  EXPECT_TRUE(held.expired());
}

TEST_F(FollowingTheSession, endsAnAttemptUnderWayAndWantsThePassphraseAfterwards) {
  havePassphrase(Requirement::withSystem);
  askSystem();
  tell({.screenLocked = true});
  EXPECT_EQ(ended(), Words{kCancelled});
  EXPECT_EQ(presence_.withdrawn, 1);
  granted();
  tell({});
  EXPECT_TRUE(changes_.empty());
  askSystem();
  granted();
  give(kRight);
  signals_.tell({.screenLocked = true}, nullptr);
  main_.runAll();
  EXPECT_EQ(ended(), (Words{"needs passphrase", kCancelled}));
  EXPECT_TRUE(changes_.empty());
}

TEST_F(FollowingTheSession, doesNotOpenAVaultThatIsHeld) {
  manager().holdLocked();
  tell({.screenLocked = true});
  tell({});
  EXPECT_FALSE(manager().isUnlocked());
  // Nor does a new start.
  manager_.reset();
  EXPECT_FALSE(manager().isUnlocked());
  EXPECT_TRUE(manager().state().heldLocked);
  askSystem();
  granted();
  EXPECT_EQ(ended(), Words{"opened"});
  EXPECT_FALSE(gate_.held);
  tell({.screenLocked = true});
  tell({});
  EXPECT_TRUE(manager().isUnlocked());
}

TEST_F(FollowingTheSession, isDecidedByTheOrganizationWhereItSaysSo) {
  managed_ = false;
  manager();
  EXPECT_TRUE(changes_.empty());
  askSystem();
  granted();
  tell({.screenLocked = true});
  EXPECT_TRUE(manager().isUnlocked());
  manager().changeFollowsSession(true, {}, change());
  manager().changeFollowsSession(false, {}, change());
  EXPECT_EQ(ended(),
            (Words{"opened", "Your organization manages this setting.", "Your organization manages this setting."}));
  EXPECT_TRUE(store_.stored.followsSession);
}

TEST_F(FollowingTheSession, isTurnedOnAndOffByTheOwnerWithAReasonForEach) {
  manager().changeFollowsSession(false, {}, change());
  EXPECT_EQ(presence_.questions.back().reason, "Stop opening sorvane with your Mac session");
  answer(OwnerPresence::Cancelled{});
  manager().changeFollowsSession(false, {}, change());
  granted();
  EXPECT_EQ(ended(), (Words{kCancelled, "done"}));
  tell({.screenLocked = true});
  EXPECT_TRUE(manager().isUnlocked());
  manager().changeFollowsSession(true, {}, change());
  EXPECT_EQ(presence_.questions.back().reason, "Open sorvane whenever your Mac is unlocked");
  granted();
  EXPECT_EQ(ended(), Words{"done"});
  // The screen is locked, so the vault is from now on.
  EXPECT_FALSE(manager().isUnlocked());
  manager().changeFollowsSession(false, {}, change());
  EXPECT_EQ(ended(), Words{"Unlock sorvane first."});
}

class PassphraseSettings : public LockManagerFixture {
 protected:
  void open() {
    if (manager().isUnlocked()) return;
    give(kRight);
    settle();
    askSystem();
    if (!presence_.questions.empty()) granted();
    settle();
    if (!manager().isUnlocked()) give(kRight);
    ended();
    ASSERT_TRUE(manager().isUnlocked());
  }
};

TEST_F(PassphraseSettings, refuseWhatIsShortMistypedOrAskedOfALockedVault) {
  manager().setPassphrase(twice("1234567"), Requirement::only, change());
  manager().setPassphrase(twice("e\u0301234567"), Requirement::only, change());
  manager().setPassphrase({base::SecretText("made up one"), base::SecretText("made up two")}, Requirement::only,
                          change());
  EXPECT_EQ(ended(),
            (Words{"Use at least 8 characters.", "Use at least 8 characters.", "The passphrases don’t match."}));
  manager().lock();
  manager().changePassphrase(base::SecretText(kRight), twice(kRight), change());
  manager().removePassphrase({}, change());
  manager().changeRequirement(Requirement::only, {}, change());
  EXPECT_EQ(ended(), Words(3, "Unlock sorvane first."));
  havePassphrase(Requirement::only);
  manager_.reset();
  manager().setPassphrase(twice(kWrong), Requirement::only, change());
  EXPECT_EQ(ended(), Words{"Unlock sorvane first."});
  EXPECT_TRUE(presence_.questions.empty());
}

TEST_F(PassphraseSettings, takeTheFirstPassphraseOfAVaultThatNothingElseOpens) {
  signals_.reported.reset();
  presence_.sentence = "Install what is missing.";
  manager().setPassphrase(twice(kRight), Requirement::only, change());
  answerAt(terminal_, OwnerPresence::Granted{});
  EXPECT_EQ(ended(), Words{"done"});
  EXPECT_TRUE(changes_.empty());
  EXPECT_EQ(manager().prompt(), LockManager::Prompt(LockManager::PassphrasePrompt{}));
  give(kRight);
  EXPECT_EQ(ended(), Words{"opened"});
}

TEST_F(PassphraseSettings, areConfirmedByTheOwnerEachWithItsReason) {
  manager().setPassphrase(twice(kRight), Requirement::only, change());
  EXPECT_EQ(presence_.questions.back().reason, "Set an sorvane passphrase");
  EXPECT_EQ(presence_.questions.back().check, Check::presence);
  answer(OwnerPresence::Failed{-1});
  EXPECT_FALSE(store_.stored.passphrase);
  manager().setPassphrase(twice(kRight), Requirement::only, change());
  granted();
  EXPECT_EQ(ended(), (Words{"Your Mac did not accept that. Try again.", "done"}));
  ASSERT_TRUE(store_.stored.passphrase);
  EXPECT_EQ(store_.stored.requirement, Requirement::only);
  EXPECT_TRUE(store_.stored.passphrase->check(kRight));
  const auto asked = presence_.questions.size();
  manager().setPassphrase(twice(kWrong), Requirement::only, change());
  EXPECT_EQ(ended(), Words{kWrongText});
  EXPECT_EQ(presence_.questions.size(), asked);

  manager().changePassphrase(base::SecretText(kWrong), twice("a third made up"), change());
  EXPECT_EQ(presence_.questions.back().reason, "Change your sorvane passphrase");
  granted();
  EXPECT_EQ(store_.stored.failedAttempts, 1);
  manager().changePassphrase(base::SecretText(kRight), twice("a third made up"), change());
  granted();
  EXPECT_EQ(ended(), (Words{kWrongText, "done"}));
  EXPECT_TRUE(store_.stored.passphrase->check("a third made up"));
  EXPECT_EQ(store_.stored.requirement, Requirement::only);
  EXPECT_EQ(store_.stored.failedAttempts, 0);

  manager().changeRequirement(Requirement::withSystem, {}, change());
  granted();
  EXPECT_EQ(store_.stored.requirement, Requirement::withSystem);
  manager().removePassphrase({}, change());
  EXPECT_EQ(presence_.questions.back().reason, "Remove your sorvane passphrase");
  granted();
  EXPECT_EQ(ended(), (Words{"done", "done"}));
  EXPECT_EQ(store_.stored, UnlockConfiguration{});
  manager().changeRequirement(Requirement::only, {}, change());
  EXPECT_EQ(ended(), Words{kWrongText});
}

TEST_F(PassphraseSettings, takeTheCurrentPassphraseOrTheOwnTerminalWhereTheSystemCannotAsk) {
  manager();
  presence_.sentence = "Install what is missing.";
  manager().setPassphrase(twice(kRight), Requirement::withSystem, change());
  EXPECT_EQ(ended(), Words{kNoPrompt});
  manager().setPassphrase(twice(kRight), Requirement::only, change());
  answerAt(terminal_, OwnerPresence::Granted{});
  EXPECT_EQ(ended(), Words{"done"});
  EXPECT_EQ(store_.stored.requirement, Requirement::only);
  manager().changeFollowsSession(false, {}, change());
  manager().changeFollowsSession(false, current(kWrong), change());
  settle();
  manager().changeFollowsSession(false, current(kRight), change());
  settle();
  manager().changeRequirement(Requirement::withSystem, current(kRight), change());
  manager().changePassphrase(base::SecretText(kRight), twice("a third made up"), change());
  settle();
  manager().removePassphrase(current(kRight), change());
  settle();
  manager().changeRequirement(Requirement::off, current("a third made up"), change());
  EXPECT_EQ(ended(), (Words{kWrongText, kWrongText, "done", kNoPrompt, "done", kWrongText, "done"}));
  EXPECT_FALSE(store_.stored.passphrase);
  EXPECT_TRUE(presence_.questions.empty());

  hasTerminal_ = false;
  manager_.reset();
  presence_.sentence.reset();
  store_.stored.followsSession = true;
  ASSERT_TRUE(manager().isUnlocked());
  presence_.sentence = "Install what is missing.";
  manager().setPassphrase(twice(kRight), Requirement::only, change());
  EXPECT_EQ(ended(), Words{kNoPrompt});
}

TEST_F(PassphraseSettings, areUnchangedByWhatALockOrAQuickerChangeOvertook) {
  manager().setPassphrase(twice(kRight), Requirement::only, change());
  presence_.questions.back().reply(OwnerPresence::Granted{});
  main_.runAll();
  manager().lock();
  EXPECT_EQ(ended(), Words{kCancelled});
  EXPECT_FALSE(store_.stored.passphrase);

  askSystem();
  granted();
  manager().setPassphrase(twice(kRight), Requirement::only, change());
  presence_.questions.back().reply(OwnerPresence::Granted{});
  main_.runAll();
  manager().setPassphrase(twice(kWrong), Requirement::only, change());
  presence_.questions.back().reply(OwnerPresence::Granted{});
  EXPECT_EQ(ended(), (Words{"opened", kCancelled, "done"}));
  EXPECT_TRUE(store_.stored.passphrase->check(kRight));

  // The first is set while the owner is asked about another first one.
  store_.stored = {};
  manager_.reset();
  manager().setPassphrase(twice(kRight), Requirement::only, change());
  presence_.questions.back().reply(OwnerPresence::Granted{});
  main_.runAll();
  manager().setPassphrase(twice(kWrong), Requirement::only, change());
  settle();
  granted();
  EXPECT_EQ(ended(), (Words{"done", kCancelled}));
  EXPECT_TRUE(store_.stored.passphrase->check(kRight));
}

TEST_F(PassphraseSettings, areUnchangedWhereAPassphraseCouldNotBeSavedAndOtherwiseSavedAgain) {
  manager();
  store_.failsToSave = true;
  manager().setPassphrase(twice(kRight), Requirement::only, change());
  granted();
  EXPECT_FALSE(manager().settings().configuration().passphrase);
  manager().changeFollowsSession(false, {}, change());
  granted();
  EXPECT_EQ(ended(), Words(2, "sorvane couldn’t read or save its unlock settings in the Keychain."));
  EXPECT_TRUE(manager().settings().unsaved());
  EXPECT_FALSE(manager().settings().configuration().followsSession);
  store_.failsToSave = false;
  manager().lock();
  EXPECT_FALSE(manager().settings().unsaved());
  EXPECT_FALSE(store_.stored.followsSession);
}

/// What the settings behind the passphrase say, and what was known before it was given.
class SettingsBehindThePassphrase : public LockManagerFixture {
 protected:
  void SetUp() override {
    havePassphrase(Requirement::only);
    gate_.sealed = true;
  }
  /// The settings turn out to be these once the gate is open.
  void turnOut(const UnlockConfiguration& stored) {
    gate_.whenTried = [this, stored] { store_.stored = stored; };
  }
};

TEST_F(SettingsBehindThePassphrase, areHonouredWhereTheyAskMore) {
  UnlockConfiguration more = store_.stored;
  more.requirement = Requirement::withSystem;
  turnOut(more);
  give(kRight);
  EXPECT_EQ(ended(), Words{std::string(kLockFileChanged)});
  EXPECT_TRUE(changes_.empty());
  EXPECT_FALSE(gate_.isOpen);
  EXPECT_EQ(store_.stored.requirement, Requirement::withSystem);
  askSystem();
  granted();
  give(kRight);
  EXPECT_EQ(ended(), (Words{"needs passphrase", "opened"}));
  EXPECT_TRUE(gate_.isOpen);
  manager().lock();
  EXPECT_FALSE(gate_.isOpen);

  signals_.reported->screenLocked = true;
  more.requirement = Requirement::only;
  store_.stored = more;
  store_.stored.followsSession = false;
  turnOut(more);
  manager_.reset();
  changes_.clear();
  give(kRight);
  EXPECT_EQ(ended(), Words{kCancelled});
  EXPECT_TRUE(changes_.empty());
  EXPECT_FALSE(gate_.isOpen);
}

TEST_F(SettingsBehindThePassphrase, areDamagedWhereTheyAskLessAndAreResetWithThePassphraseKept) {
  const UnlockConfiguration known = store_.stored;
  UnlockConfiguration without, less = known, unfollowing = known;
  less.requirement = Requirement::only;
  unfollowing.followsSession = false;
  for (const auto& [before, found] : {std::pair(Requirement::only, without), std::pair(Requirement::withSystem, less),
                                      std::pair(Requirement::only, unfollowing)}) {
    manager_.reset();
    changes_.clear();
    presence_.sentence.reset();
    store_.stored = known;
    store_.stored.requirement = before;
    gate_.kept = store_.stored;
    turnOut(found);
    if (before == Requirement::withSystem) askSystem(), granted(), ended();
    give(kRight);
    const std::string sentence = UnlockError(Case::settingsDamaged).sentence();
    EXPECT_EQ(ended(), Words{sentence});
    EXPECT_EQ(manager().prompt(), LockManager::Prompt(LockManager::ResetPrompt{sentence}));
    EXPECT_TRUE(gate_.isOpen);
    EXPECT_TRUE(changes_.empty());
    manager().reset(outcome());
    granted();
    EXPECT_EQ(ended(), Words{"opened"});
    gate_.kept.resetCause = Case::settingsDamaged;
    EXPECT_EQ(store_.stored, gate_.kept);
    EXPECT_EQ(manager().settings().configuration(), gate_.kept);
    manager().lock();
    EXPECT_FALSE(gate_.isOpen);
  }
}

TEST_F(SettingsBehindThePassphrase, decideWhereTheFileAsksForACheckThatCannotBeHad) {
  const UnlockConfiguration alone = store_.stored;
  UnlockConfiguration both = alone;
  both.requirement = Requirement::withSystem;
  presence_.sentence = "Install what is missing.";
  store_.stored = both;
  turnOut(both);
  EXPECT_EQ(manager().prompt(), LockManager::Prompt(LockManager::PassphrasePrompt{}));
  askSystem();
  give(kRight);
  EXPECT_EQ(ended(), (Words{"needs passphrase", "Install what is missing."}));
  EXPECT_FALSE(gate_.isOpen);
  turnOut(alone);
  give(kRight);
  EXPECT_EQ(ended(), Words{"opened"});
  EXPECT_FALSE(manager().openedBySystemCheck());
  EXPECT_EQ(store_.stored.requirement, Requirement::only);
  // Less than the passphrase alone is taken for tampering all the same.
  manager().lock();
  store_.stored = both;
  manager_.reset();
  turnOut({});
  give(kRight);
  EXPECT_EQ(ended(), Words{UnlockError(Case::settingsDamaged).sentence()});
}

TEST_F(SettingsBehindThePassphrase, areNotLeftOpenForLong) {
  const UnlockConfiguration known = store_.stored;
  for (const bool isGivenUp : {true, false}) {
    store_.stored = known;
    manager_.reset();
    turnOut({});
    give(kRight);
    ended();
    ASSERT_TRUE(gate_.isOpen);
    store_.stored = known;
    if (isGivenUp) {
      manager().giveUp();
    } else {
      clock_.advance(2min);
      manager().waitSeconds();
      EXPECT_TRUE(gate_.isOpen);
      clock_.advance(1s);
      manager().reset(outcome());
      EXPECT_EQ(ended(), Words{kCancelled});
    }
    EXPECT_FALSE(gate_.isOpen);
    EXPECT_EQ(manager().prompt(), LockManager::Prompt(LockManager::PassphrasePrompt{}));
  }
}

TEST_F(SettingsBehindThePassphrase, areClosedAgainWhereNobodyResetsThem) {
  turnOut({});
  give(kRight);
  ended();
  manager().lock();
  EXPECT_FALSE(gate_.isOpen);
  havePassphrase(Requirement::only);
  manager().holdLocked();
  EXPECT_EQ(manager().prompt(), LockManager::Prompt(LockManager::PassphrasePrompt{}));
  give(kRight);
  ended();
  store_.failsToSave = true;
  presence_.sentence = "Install what is missing.";
  // The passphrase may have been another's: somebody at the own terminal answers, or nobody resets it.
  terminal_.sentence = "Nobody typed there.";
  manager().reset(outcome());
  EXPECT_EQ(ended(), Words{kNoPrompt});
  EXPECT_FALSE(manager().isUnlocked());
  terminal_.sentence.reset();
  manager().reset(outcome());
  answerAt(terminal_, OwnerPresence::Granted{});
  EXPECT_EQ(ended(), Words{"sorvane couldn’t read or save its unlock settings in the Keychain."});
  EXPECT_TRUE(manager().state().heldLocked);
  EXPECT_FALSE(gate_.isOpen);
}

TEST_F(SettingsBehindThePassphrase, wantItOnceMoreBeforeTheStoreIsReleased) {
  give(kRight);
  EXPECT_EQ(ended(), Words{"opened"});
  manager().removePassphrase({}, change());
  manager().changeRequirement(Requirement::withSystem, {}, change());
  manager().removePassphrase(current(kWrong), change());
  granted();
  manager().changeRequirement(Requirement::off, current(kRight), change());
  granted();
  EXPECT_EQ(ended(), (Words{kWrongText, kWrongText, kWrongText, "done"}));
  EXPECT_EQ(store_.stored, UnlockConfiguration{});
}

/// The manager as it runs: derivations and everything else on threads of their own.
TEST_F(LockManagerFixture, leavesItsThreadFreeWhileAPassphraseIsChecked) {
  store_.stored.passphrase = PassphraseVerifier::make(kRight);
  store_.stored.requirement = Requirement::only;
  SerialQueue main, work;
  std::unique_ptr<LockManager> manager;
  main.run([&] {
    manager =
        std::make_unique<LockManager>(LockManager::Dependencies{.hardware = [] { return UnlockHardware{}; },
                                                                .presence = presence_,
                                                                .store = store_,
                                                                .gate = gate_,
                                                                .managedFollowsSession = [] { return std::nullopt; },
                                                                .signals = signals_,
                                                                .now = clock_,
                                                                .main = main,
                                                                .work = work});
    manager->start();
  });
  std::promise<void> gate;
  work.post([&] { gate.get_future().wait(); });
  std::promise<bool> opened;
  main.run([&] {
    manager->unlockWithPassphrase(base::SecretText(kRight), [&](const LockManager::Outcome& outcome) {
      opened.set_value(std::holds_alternative<LockManager::Opened>(outcome));
    });
  });
  bool wasChecking = false;
  main.run([&] { wasChecking = manager->checkingPassphrase(); });
  EXPECT_TRUE(wasChecking);
  gate.set_value();
  EXPECT_TRUE(opened.get_future().get());
  main.run([&] { manager.reset(); });
}

}  // namespace
}  // namespace sorvane::test
