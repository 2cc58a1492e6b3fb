// The agent on the person's own terminal, against a real polkitd, its set-user-id helper and the system's real
// authentication modules; tests/support/with-polkit and with-test-account start this program. A question goes from one
// process of the test account, the application, to another, the program that the person typed into.
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "platform/asker.h"
#include "platform/desk.h"
#include "platform/linux/owner_check.h"
#include "platform/linux/polkit_text_agent.h"

namespace sorvane::test {
namespace {

using namespace std::chrono_literals;

constexpr uid_t kAccount = 54321;
constexpr char kShown[] = "\r\nUnlock sorvane.\r\nPassword: ";

int runApplication() {
  platform::OwnerCheck check({.takeTerminal = {}, .showReason = [](const std::string&) { return false; }});
  serveAsker(check, [&](const std::string& command) {
    if (!command.starts_with("for ")) return;
    const auto process = base::processInfo(static_cast<pid_t>(std::stol(command.substr(4))));
    check.askFor({{process.value(), command.ends_with("who shows the reason")}});
  });
  return 0;
}

int runPerson() {
  std::optional<platform::PolkitTextAgent> agent;
  for (std::string command; std::getline(std::cin, command);) {
    if (command == "leave") {
      agent.reset();
      std::cout << "left" << std::endl;
    } else {
      agent.emplace("Unlock sorvane", platform::TerminalPrompt(setting("SORVANE_TEST_TERMINAL")));
      std::cout << (agent->answersHere() ? "answers" : "does not answer") << std::endl;
    }
  }
  return 0;
}

int runAsker() {
  const uid_t user = setting("SORVANE_TEST_UID").empty() ? kAccount : 0;
  if (user != 0 && (::setgid(65534) != 0 || ::setuid(user) != 0)) return 99;
  return setting("SORVANE_TEST_TERMINAL").empty() ? runApplication() : runPerson();
}

class TextAgent : public ::testing::Test {
 protected:
  std::string enter() {
    person_.tell("enter");
    return person_.hear();
  }
  void ask(const std::string& word = "who shows the reason") {
    application_.tell("for " + std::to_string(person_.pid()) + " " + word);
    application_.tell("ask");
  }
  const std::string password_ = setting("SORVANE_TEST_PASSWORD");
  Desk desk_;
  Asker application_;
  Asker person_{Asker::Settings{{"SORVANE_TEST_TERMINAL", desk_.giveTo(kAccount)}}};
};

TEST_F(TextAgent, asksWhereThePersonTypedAndTellsPolkitWhatCameOfIt) {
  ASSERT_EQ(enter(), "answers");
  const std::pair<std::string, std::string> lines[] = {
      {password_ + "\r", "granted"}, {"not " + password_ + "\r", "failed -1"}, {"some\x03", "cancelled"}};
  for (const auto& [keys, answer] : lines) {
    ask();
    EXPECT_EQ(desk_.readTo("Password: "), kShown);
    EXPECT_FALSE(desk_.echoes());
    desk_.type(keys);
    EXPECT_EQ(application_.hear(), answer);
    EXPECT_TRUE(desk_.echoes());
    EXPECT_EQ(desk_.readTo("\r\n"), "\r\n");
  }
}

TEST_F(TextAgent, takesThePromptAwayWithTheQuestion) {
  ASSERT_EQ(enter(), "answers");
  ask();
  desk_.readTo("Password: ");
  application_.tell("withdraw");
  EXPECT_EQ(application_.hear(), "cancelled");
  desk_.readTo("\r\n");
  // Ready for the next one, which the person's program leaves.
  ask();
  EXPECT_EQ(desk_.readTo("Password: "), kShown);
  person_.tell("leave");
  EXPECT_EQ(person_.hear(), "left");
  EXPECT_TRUE(desk_.echoes());
  EXPECT_EQ(application_.hear(), "cancelled");
  ask();
  EXPECT_EQ(application_.hear(), "failed -1004: " + std::string(platform::kPolkitNoAgent));
}

TEST_F(TextAgent, isNotAskedWithoutAReason) {
  ASSERT_EQ(enter(), "answers");
  ask("who shows nothing");
  EXPECT_EQ(application_.hear(), "failed -1004: " + std::string(platform::kReasonNowhere));
  EXPECT_EQ(desk_.waiting(), 0);
}

TEST_F(TextAgent, answersNoQuestionButSorvanes) {
  const std::filesystem::path actions = "/usr/share/polkit-1/actions";
  std::ifstream own(actions / "org.sorvane.owner-check.policy");
  std::string policy{std::istreambuf_iterator<char>(own), {}};
  policy.replace(policy.find("org.sorvane.owner-check"), 23, "org.sorvane.other-thing");
  std::ofstream(actions / "org.sorvane.other-thing.policy") << policy;
  ASSERT_EQ(enter(), "answers");
  using Words = std::map<std::string, sdbus::Variant>;
  using Details = std::map<std::string, std::string>;
  const auto info = base::processInfo(person_.pid()).value();
  const sdbus::Struct<std::string, Words> subject{
      "unix-process", Words{{"pid", sdbus::Variant(static_cast<std::uint32_t>(info.pid))},
                            {"start-time", sdbus::Variant(static_cast<std::uint64_t>(info.startedAt))},
                            {"uid", sdbus::Variant(static_cast<std::int32_t>(kAccount))}}};
  const auto connection = sdbus::createSystemBusConnection();
  const auto authority =
      sdbus::createProxy(*connection, "org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority");
  sdbus::Struct<bool, bool, Details> said;
  for (int tries = 200; tries > 0; --tries) try {
      authority->callMethod("CheckAuthorization")
          .onInterface("org.freedesktop.PolicyKit1.Authority")
          .withArguments(subject, std::string("org.sorvane.other-thing"), Details{}, std::uint32_t{1}, std::string())
          .storeResultsTo(said);
      break;
    } catch (const sdbus::Error&) {
      // Until polkit has read its folder again.
      ASSERT_GT(tries, 1);
      ::usleep(50'000);
    }
  EXPECT_FALSE(said.get<0>());
  EXPECT_EQ(desk_.waiting(), 0);
  std::filesystem::remove(actions / "org.sorvane.other-thing.policy");
}

TEST_F(TextAgent, saysWhenItCannotAnswer) {
  const Asker::Settings cases[] = {
      {{"SORVANE_TEST_TERMINAL", "/dev/null"}},
      {{"SORVANE_TEST_TERMINAL", desk_.giveTo(kAccount)}, {"SORVANE_TEST_UID", "0"}},
      {{"SORVANE_TEST_TERMINAL", desk_.giveTo(kAccount)}, {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent"}},
  };
  for (const auto& settings : cases) {
    Asker person(settings);
    person.tell("enter");
    EXPECT_EQ(person.hear(), "does not answer");
  }
  // The control.
  EXPECT_EQ(enter(), "answers");
}

}  // namespace
}  // namespace sorvane::test

int main(int argc, char** argv) {
  if (sorvane::test::Asker::isThis()) return sorvane::test::runAsker();
  if (std::getenv("SORVANE_TEST_POLKIT") == nullptr || std::getenv("SORVANE_TEST_ACCOUNT") == nullptr) {
    std::fputs("skipped: tests/support/with-test-account and with-polkit start this program\n", stdout);
    return 77;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
