// The owner check against a real polkitd; tests/support/with-polkit starts one and this program under it. The questions
// are asked by an ordinary user's process, which is this program again.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>

#include "base/system.h"
#include "platform/asker.h"
#include "platform/linux/polkit_owner_check.h"
#include "platform/polkit/own_agent.h"

namespace sorvane::test {
namespace {

using namespace std::chrono_literals;
using platform::PolkitOwnerCheck;
using Manner = OwnAgent::Manner;
using Words = std::vector<std::string>;

constexpr char kAsked[] = "org.sorvane.owner-check: sorvane needs to know that it is you";

/// The answer to a question that was not asked.
std::string notAsked(std::string_view sentence, int code = -1004) {
  return "failed " + std::to_string(code) + ": " + std::string(sentence);
}

/// Asks as an ordinary user.
int runAsker() {
  if (::setgid(65534) != 0 || ::setuid(65534) != 0) return 99;
  // As the application is: polkit must get along with a process that nobody can look into.
  base::hardenProcess();
  std::atomic<bool> isShown = true, isSlow = false;
  std::promise<void> shown;
  base::ProcessInfo gone;
  gone.pid = 4'194'303;
  gone.startedAt = 1;
  const auto nobody = [gone] { return platform::Asking{gone, false}; };
  const bool isForNobody = std::getenv("SORVANE_TEST_FOR_NOBODY") != nullptr;
  using Asking = std::function<std::optional<platform::Asking>()>;
  PolkitOwnerCheck check({.asking = isForNobody ? Asking(nobody) : Asking(),
                          .showReason =
                              [&](const std::string& reason) {
                                std::cout << "reason: " << reason << std::endl;
                                if (isSlow.exchange(false)) shown.get_future().wait();
                                return isShown.load();
                              },
                          .limit = std::getenv("SORVANE_TEST_IMPATIENT") != nullptr ? 300ms : 20s});
  serveAsker(check, [&](const std::string& command) {
    isShown = command != "ask unseen";
    if (command == "ask slowly") isSlow = true;
    if (command == "go on") shown.set_value();
  });
  return 0;
}

/// The answer, after the reason was shown.
std::string answerOf(Asker& asker) {
  asker.tell("ask");
  const std::string first = asker.hear();
  return first == "reason: Unlock it" ? asker.hear() : "without a reason: " + first;
}

/// Asks until polkit has read its folders again.
std::string unavailableOnce(Asker& asker, std::string_view expected) {
  std::string said;
  for (int i = 0; i < 200 && (said = asker.unavailable()) != expected; ++i) ::usleep(50'000);
  return said;
}

TEST(PolkitOwnerCheck, tellsGrantedNotAcceptedAndDismissedApartAndAsksEveryTime) {
  const std::pair<Manner, std::string> manners[] = {
      {Manner::saysYes, "granted"}, {Manner::saysNo, "failed -1"}, {Manner::dismisses, "cancelled"}};
  for (const auto& [manner, word] : manners) {
    Asker asker;
    OwnAgent agent(asker.pid(), manner);
    EXPECT_EQ(asker.unavailable(), "available");
    EXPECT_EQ(answerOf(asker), word);
    EXPECT_EQ(answerOf(asker), word);
    EXPECT_EQ(agent.asked(2), (Words{kAsked, kAsked}));
  }
}

TEST(PolkitOwnerCheck, saysInTheAnswerThatThereIsNoAgentAndStaysAvailable) {
  Asker asker;
  {
    // An agent of another process is none of this one's.
    Asker other;
    OwnAgent agent(other.pid(), Manner::saysYes);
    EXPECT_EQ(answerOf(asker), notAsked(platform::kPolkitNoAgent));
  }
  EXPECT_EQ(asker.unavailable(), "available");
  OwnAgent agent(asker.pid(), Manner::saysYes);
  EXPECT_EQ(answerOf(asker), "granted");
}

TEST(PolkitOwnerCheck, doesNotAskWhatItCannotExplainAndStaysAvailable) {
  Asker asker;
  OwnAgent agent(asker.pid(), Manner::saysYes);
  asker.tell("ask unseen");
  EXPECT_EQ(asker.hear(), "reason: Unlock it");
  EXPECT_EQ(asker.hear(), notAsked(platform::kReasonNowhere));
  EXPECT_EQ(asker.unavailable(), "available");
  EXPECT_EQ(answerOf(asker), "granted");
  EXPECT_EQ(agent.asked(1).size(), 1U);
}

TEST(PolkitOwnerCheck, asksAnewWhileAQuestionTakenBackStillEnds) {
  Asker asker;
  OwnAgent agent(asker.pid(), Manner::saysYes);
  asker.tell("ask slowly");
  EXPECT_EQ(asker.hear(), "reason: Unlock it");
  EXPECT_EQ(answerOf(asker), "granted");
  asker.tell("go on");
  EXPECT_EQ(asker.hear(), "cancelled");
  EXPECT_EQ(agent.asked(1).size(), 1U);
}

TEST(PolkitOwnerCheck, doesNotTakeAnAskerThatIsGoneForAMissingAction) {
  Asker asker(Asker::Settings{{"SORVANE_TEST_FOR_NOBODY", "1"}});
  asker.tell("ask");
  EXPECT_EQ(asker.hear(), notAsked(platform::kAskerGone));
  EXPECT_EQ(asker.unavailable(), "available");
}

TEST(PolkitOwnerCheck, waitsForNoServiceThatHangsAndDoesNotCallItAbsent) {
  Asker asker;
  const pid_t polkitd = std::atoi(std::getenv("SORVANE_TEST_POLKITD"));
  ::kill(polkitd, SIGSTOP);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(asker.unavailable(), "available");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  asker.tell("ask");
  EXPECT_EQ(asker.hear(), notAsked(platform::kPolkitSilent, -4));
  ::kill(polkitd, SIGCONT);
}

TEST(PolkitOwnerCheck, takesTheQuestionBackFromAnAgentThatNeverAnswers) {
  {
    Asker asker(Asker::Settings{{"SORVANE_TEST_IMPATIENT", "1"}});
    OwnAgent agent(asker.pid(), Manner::isSilent);
    EXPECT_EQ(answerOf(asker), "cancelled");
    const Words told = agent.asked(2);
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(told.front(), kAsked);
    // The service may take it back twice: once for the call that ends, once for the asker that goes.
    EXPECT_GE(std::count(told.begin(), told.end(), "cancelled"), 1);
    EXPECT_EQ(std::count(told.begin(), told.end(), kAsked), 1);
    EXPECT_LE(told.size(), 3U);
  }
  Asker asker;
  OwnAgent agent(asker.pid(), Manner::isSilent);
  asker.tell("ask");
  EXPECT_EQ(agent.asked(1), Words{kAsked});
  asker.tell("withdraw");
  EXPECT_EQ(asker.hear(), "reason: Unlock it");
  EXPECT_EQ(asker.hear(), "cancelled");
  EXPECT_EQ(agent.asked(2), (Words{kAsked, "cancelled"}));
}

TEST(PolkitOwnerCheck, isUnavailableToRootWhoWouldNeverBeAsked) {
  PolkitOwnerCheck check({.asking = {}, .showReason = [](const std::string&) { return true; }});
  EXPECT_EQ(check.unavailable(), platform::kPolkitAsRoot);
  OwnAgent agent(::getpid(), Manner::saysYes);
  std::promise<std::string> said;
  check.ask(unlock::OwnerPresence::Check::any, "Unlock it",
            [&](const auto& answer) { said.set_value(wordOf(answer)); });
  EXPECT_EQ(said.get_future().get(), notAsked(platform::kPolkitAsRoot));
  EXPECT_TRUE(agent.asked(0).empty());
}

TEST(PolkitOwnerCheck, takesNoYesThatNobodyWasAskedFor) {
  Asker asker;
  OwnAgent agent(asker.pid(), Manner::saysYes);
  const std::filesystem::path rule = "/etc/polkit-1/rules.d/10-sorvane-test.rules";
  for (const auto& [result, sentence] :
       {std::pair("YES", platform::kPolkitNoQuestion), std::pair("NO", platform::kPolkitForbidden)}) {
    std::ofstream(rule) << "polkit.addRule(function(action, subject) { return polkit.Result." << result << "; });\n";
    EXPECT_EQ(unavailableOnce(asker, sentence), sentence);
    asker.tell("ask");
    EXPECT_EQ(asker.hear(), notAsked(sentence));
  }
  std::filesystem::remove(rule);
  EXPECT_EQ(unavailableOnce(asker, "available"), "available");
  EXPECT_TRUE(agent.asked(0).empty());
}

TEST(PolkitOwnerCheck, namesWhatIsMissing) {
  {
    Asker asker(Asker::Settings{{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent"}});
    EXPECT_EQ(asker.unavailable(), platform::kPolkitAbsent);
    asker.tell("ask");
    EXPECT_EQ(asker.hear(), notAsked(platform::kPolkitAbsent, -4));
  }
  Asker asker;
  const std::filesystem::path folder = "/usr/share/polkit-1/actions", file = folder / "org.sorvane.owner-check.policy";
  std::filesystem::rename(file, folder / "aside");
  EXPECT_EQ(unavailableOnce(asker, platform::kPolkitActionAbsent), platform::kPolkitActionAbsent);
  std::filesystem::rename(folder / "aside", file);
  EXPECT_EQ(unavailableOnce(asker, "available"), "available");
}

// The last one: there is no polkit afterwards.
TEST(PolkitOwnerCheck, survivesAServiceThatGoesWhileItIsAsked) {
  Asker asker;
  auto agent = std::make_unique<OwnAgent>(asker.pid(), Manner::isSilent);
  asker.tell("ask");
  EXPECT_EQ(agent->asked(1), Words{kAsked});
  ::kill(std::atoi(std::getenv("SORVANE_TEST_POLKITD")), SIGKILL);
  EXPECT_EQ(asker.hear(), "reason: Unlock it");
  EXPECT_EQ(asker.hear(), notAsked(platform::kPolkitSilent, -4));
  EXPECT_EQ(asker.unavailable(), platform::kPolkitAbsent);
  agent.reset();
}

}  // namespace
}  // namespace sorvane::test

int main(int argc, char** argv) {
  if (sorvane::test::Asker::isThis()) return sorvane::test::runAsker();
  if (std::getenv("SORVANE_TEST_POLKIT") == nullptr) {
    std::fputs("skipped: tests/support/with-polkit starts this program\n", stdout);
    return 77;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
