// The owner check against a real polkitd; tests/support/with-polkit starts one and this program under it. The questions
// are asked by an ordinary user's process, which is this program again.
#include <gtest/gtest.h>

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
constexpr char kNobodyToAsk[] = "failed -1004";

/// Asks as an ordinary user.
int runAsker() {
  if (::setgid(65534) != 0 || ::setuid(65534) != 0) return 99;
  // As the application is: polkit must get along with a process that nobody can look into.
  base::hardenProcess();
  bool isShown = true;
  PolkitOwnerCheck check({.asking = {},
                          .showReason =
                              [&](const std::string& reason) {
                                std::cout << "reason: " << reason << std::endl;
                                return isShown;
                              },
                          .limit = std::getenv("SORVANE_TEST_IMPATIENT") != nullptr ? 300ms : 20s});
  serveAsker(check, [&](const std::string& command) { isShown = command != "ask unseen"; });
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

TEST(PolkitOwnerCheck, saysThatThereIsNoAgentUntilOneAnswers) {
  Asker asker;
  {
    // An agent of another process is none of this one's.
    Asker other;
    OwnAgent agent(other.pid(), Manner::saysYes);
    EXPECT_EQ(answerOf(asker), kNobodyToAsk);
  }
  EXPECT_EQ(asker.unavailable(), platform::kPolkitNoAgent);
  OwnAgent agent(asker.pid(), Manner::saysYes);
  EXPECT_EQ(answerOf(asker), "granted");
  EXPECT_EQ(asker.unavailable(), "available");
}

TEST(PolkitOwnerCheck, doesNotAskWhatItCannotExplain) {
  Asker asker;
  OwnAgent agent(asker.pid(), Manner::saysYes);
  asker.tell("ask unseen");
  EXPECT_EQ(asker.hear(), "reason: Unlock it");
  EXPECT_EQ(asker.hear(), kNobodyToAsk);
  EXPECT_EQ(asker.unavailable(), platform::kReasonNowhere);
  EXPECT_EQ(answerOf(asker), "granted");
  EXPECT_EQ(agent.asked(1).size(), 1U);
}

TEST(PolkitOwnerCheck, takesTheQuestionBackFromAnAgentThatNeverAnswers) {
  {
    Asker asker(Asker::Settings{{"SORVANE_TEST_IMPATIENT", "1"}});
    OwnAgent agent(asker.pid(), Manner::isSilent);
    EXPECT_EQ(answerOf(asker), "cancelled");
    EXPECT_EQ(agent.asked(2), (Words{kAsked, "cancelled"}));
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
  EXPECT_EQ(said.get_future().get(), kNobodyToAsk);
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
    EXPECT_EQ(asker.hear(), kNobodyToAsk);
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
    EXPECT_EQ(asker.hear(), "failed -4");
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
  EXPECT_EQ(asker.hear(), "failed -4");
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
