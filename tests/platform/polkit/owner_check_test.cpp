// The owner check against a real polkitd; tests/support/with-polkit starts one and this program under it. The questions
// are asked by an ordinary user's process, which is this program again.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>

#include "base/descriptor.h"
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

std::string wordOf(const unlock::OwnerPresence::Answer& answer) {
  if (std::holds_alternative<unlock::OwnerPresence::Granted>(answer)) return "granted";
  if (std::holds_alternative<unlock::OwnerPresence::Cancelled>(answer)) return "cancelled";
  return "failed " + std::to_string(std::get<unlock::OwnerPresence::Failed>(answer).code);
}

/// One command a line on standard input, one line of answer each.
int runAsker() {
  if (::setgid(65534) != 0 || ::setuid(65534) != 0) return 99;
  bool isShown = true;
  PolkitOwnerCheck check({.subject = {},
                          .showReason =
                              [&](const std::string& reason) {
                                std::cout << "reason: " << reason << std::endl;
                                return isShown;
                              },
                          .limit = std::getenv("SORVANE_TEST_IMPATIENT") != nullptr ? 300ms : 20s});
  for (std::string command; std::getline(std::cin, command);) {
    if (command == "unavailable") {
      std::cout << check.unavailable().value_or("available") << std::endl;
    } else if (command == "withdraw") {
      check.withdraw();
    } else {
      isShown = command != "ask unseen";
      check.ask(unlock::OwnerPresence::Check::presence, "Unlock it",
                [](const unlock::OwnerPresence::Answer& answer) { std::cout << wordOf(answer) << std::endl; });
    }
  }
  return 0;
}

class Asker {
 public:
  explicit Asker(const std::string& setting = "SORVANE_TEST_PATIENT=1") {
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) std::abort();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(in[0], STDIN_FILENO);
      ::dup2(out[1], STDOUT_FILENO);
      const std::size_t equals = setting.find('=');
      ::setenv(setting.substr(0, equals).c_str(), setting.substr(equals + 1).c_str(), 1);
      ::setenv("SORVANE_TEST_ASKER", "1", 1);
      ::execl("/proc/self/exe", "asker", nullptr);
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    to_.reset(in[1]);
    from_.reset(out[0]);
  }
  ~Asker() {
    to_.reset();
    ::waitpid(pid_, nullptr, 0);
  }
  pid_t pid() const { return pid_; }
  void tell(const std::string& command) {
    const std::string line = command + "\n";
    ASSERT_EQ(::write(to_.get(), line.data(), line.size()), static_cast<ssize_t>(line.size()));
  }
  std::string hear() {
    std::string line;
    for (char c = 0; ::read(from_.get(), &c, 1) == 1 && c != '\n';) line += c;
    return line;
  }
  std::string unavailable() {
    tell("unavailable");
    return hear();
  }
  /// The answer, after the reason was shown.
  std::string ask() {
    tell("ask");
    const std::string first = hear();
    return first == "reason: Unlock it" ? hear() : "without a reason: " + first;
  }

 private:
  pid_t pid_ = -1;
  base::Descriptor to_, from_;
};

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
    EXPECT_EQ(asker.ask(), word);
    EXPECT_EQ(asker.ask(), word);
    EXPECT_EQ(agent.asked(2), (Words{kAsked, kAsked}));
  }
}

TEST(PolkitOwnerCheck, saysThatThereIsNoAgentUntilOneAnswers) {
  Asker asker;
  {
    // An agent of another process is none of this one's.
    Asker other;
    OwnAgent agent(other.pid(), Manner::saysYes);
    EXPECT_EQ(asker.ask(), kNobodyToAsk);
  }
  EXPECT_EQ(asker.unavailable(), platform::kPolkitNoAgent);
  OwnAgent agent(asker.pid(), Manner::saysYes);
  EXPECT_EQ(asker.ask(), "granted");
  EXPECT_EQ(asker.unavailable(), "available");
}

TEST(PolkitOwnerCheck, doesNotAskWhatItCannotExplain) {
  Asker asker;
  OwnAgent agent(asker.pid(), Manner::saysYes);
  asker.tell("ask unseen");
  EXPECT_EQ(asker.hear(), "reason: Unlock it");
  EXPECT_EQ(asker.hear(), kNobodyToAsk);
  EXPECT_EQ(asker.unavailable(), platform::kReasonNowhere);
  EXPECT_EQ(asker.ask(), "granted");
  EXPECT_EQ(agent.asked(1).size(), 1U);
}

TEST(PolkitOwnerCheck, takesTheQuestionBackFromAnAgentThatNeverAnswers) {
  {
    Asker asker("SORVANE_TEST_IMPATIENT=1");
    OwnAgent agent(asker.pid(), Manner::isSilent);
    EXPECT_EQ(asker.ask(), "cancelled");
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
  PolkitOwnerCheck check({.subject = {}, .showReason = [](const std::string&) { return true; }});
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
    Asker asker("DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent");
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
  if (std::getenv("SORVANE_TEST_ASKER") != nullptr) return sorvane::test::runAsker();
  if (std::getenv("SORVANE_TEST_POLKIT") == nullptr) {
    std::fputs("skipped: tests/support/with-polkit starts this program\n", stdout);
    return 77;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
