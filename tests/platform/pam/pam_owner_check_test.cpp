// The owner check through the system's real authentication modules, for test accounts; tests/support/with-test-account
// makes them and starts this program. The question is asked by a process of the account, on a pseudo-terminal.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include "platform/asker.h"
#include "platform/desk.h"
#include "platform/linux/owner_check.h"

namespace sorvane::test {
namespace {

using namespace std::chrono_literals;
using platform::OwnerCheck;

constexpr uid_t kAccount = 54321, kBlankAccount = 54322;
constexpr char kPrompt[] = "Password: ";

int runAsker() {
  const auto uid = static_cast<uid_t>(std::stoul(setting("SORVANE_TEST_UID")));
  if (uid != 0 && (::setgid(65534) != 0 || ::setuid(uid) != 0)) return 99;
  const auto takeTerminal = [](const std::stop_token& withdrawn) {
    if (setting("SORVANE_TEST_BUSY").empty()) return std::make_shared<int>();
    std::cout << "waits" << std::endl;
    base::Mutex mutex;
    base::Condition never;
    base::Lock lock(mutex);
    never.wait(lock.mutex(), withdrawn, [] { return false; });
    return std::shared_ptr<int>();
  };
  OwnerCheck check(
      {.takeTerminal = setting("SORVANE_TEST_TERMINAL").empty() ? OwnerCheck::TakeTerminal() : takeTerminal,
       .terminal = platform::TerminalPrompt(setting("SORVANE_TEST_TERMINAL")),
       .limit = setting("SORVANE_TEST_IMPATIENT").empty() ? 20s : 300ms});
  serveAsker(check, [](const std::string&) {});
  return 0;
}

class PamCheck : public ::testing::Test {
 protected:
  Asker::Settings settings(uid_t uid, bool isImpatient = false) {
    return {{"SORVANE_TEST_UID", std::to_string(uid)},
            {"SORVANE_TEST_TERMINAL", desk_.giveTo(uid)},
            {"SORVANE_TEST_IMPATIENT", isImpatient ? "1" : ""},
            {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent"}};
  }
  const std::string password_ = setting("SORVANE_TEST_PASSWORD");
  Desk desk_;
};

TEST_F(PamCheck, takesTheLoginPasswordAndNoOtherAndShowsNoneOfIt) {
  Asker asker(settings(kAccount));
  EXPECT_EQ(asker.unavailable(), "available");
  const std::pair<std::string, std::string> lines[] = {
      {password_ + "\r", "granted"},
      {"wrong\x15" + password_ + "\xc3\xa9\x7f\r", "granted"},
      {"not " + password_ + "\r", "failed -1"},
      {"\r", "failed -1"},
      {"some\x03", "cancelled"},
      {"\x04", "cancelled"},
  };
  for (const auto& [keys, answer] : lines) {
    // Typed before there was a question, so it is no answer.
    desk_.type("early\r");
    desk_.readTo("early\r\n");
    asker.tell("ask");
    EXPECT_EQ(desk_.readTo(kPrompt), std::string("\r\nUnlock it.\r\n") + kPrompt);
    EXPECT_FALSE(desk_.echoes());
    desk_.type(keys);
    EXPECT_EQ(asker.hear(), answer);
    EXPECT_TRUE(desk_.echoes());
    EXPECT_EQ(desk_.readTo("\r\n"), "\r\n");
  }
}

TEST_F(PamCheck, endsWithoutAnAnswerWhenItIsTakenBackOrNobodyTypes) {
  for (const bool isImpatient : {true, false}) {
    Asker asker(settings(kAccount, isImpatient));
    asker.tell("ask");
    desk_.readTo(kPrompt);
    if (!isImpatient) asker.tell("withdraw");
    EXPECT_EQ(asker.hear(), "cancelled");
    EXPECT_TRUE(desk_.echoes());
  }
}

TEST_F(PamCheck, doesNotStandInForPolkitAsRoot) {
  Asker asker(settings(0));
  EXPECT_EQ(asker.unavailable(), platform::kPolkitAsRoot);
  asker.tell("ask");
  EXPECT_EQ(asker.hear(), "failed -1004: " + std::string(platform::kPolkitAsRoot));
  EXPECT_EQ(desk_.waiting(), 0);
}

TEST_F(PamCheck, asksOnlyOnceTheTerminalIsItsOwn) {
  auto busy = settings(kAccount);
  busy["SORVANE_TEST_BUSY"] = "1";
  Asker asker(busy);
  asker.tell("ask");
  EXPECT_EQ(asker.hear(), "waits");
  EXPECT_TRUE(desk_.echoes());
  asker.tell("withdraw");
  EXPECT_EQ(asker.hear(), "cancelled");
  EXPECT_EQ(desk_.waiting(), 0);
}

TEST_F(PamCheck, takesNoYesOfAnAccountThatHasNoPassword) {
  Asker asker(settings(kBlankAccount));
  asker.tell("ask");
  EXPECT_EQ(asker.hear(), "failed -5");
}

TEST_F(PamCheck, fallsBackToTheServiceOfTheLoginAndSaysWhatIsMissing) {
  const std::filesystem::path services = "/etc/pam.d";
  std::filesystem::rename(services / "sorvane", services / "sorvane.aside");
  {
    Asker asker(settings(kAccount));
    asker.tell("ask");
    desk_.readTo(kPrompt);
    desk_.type(password_ + "\r");
    EXPECT_EQ(asker.hear(), "granted");
  }
  std::filesystem::rename(services / "login", services / "login.aside");
  {
    Asker asker(settings(kAccount));
    EXPECT_EQ(asker.unavailable(), platform::kPamNoService);
  }
  {
    // Where packages put theirs.
    const std::filesystem::path packaged = "/usr/lib/pam.d/sorvane";
    std::filesystem::copy_file(services / "sorvane.aside", packaged);
    Asker asker(settings(kAccount));
    asker.tell("ask");
    desk_.readTo(kPrompt);
    desk_.type(password_ + "\r");
    EXPECT_EQ(asker.hear(), "granted");
    std::filesystem::remove(packaged);
  }
  std::filesystem::rename(services / "login.aside", services / "login");
  std::filesystem::rename(services / "sorvane.aside", services / "sorvane");
  auto elsewhere = settings(kAccount);
  elsewhere["SORVANE_TEST_TERMINAL"] = "/dev/null";
  Asker asker(elsewhere);
  EXPECT_EQ(asker.unavailable(), platform::kPamNoTerminal);
  asker.tell("ask");
  EXPECT_EQ(asker.hear(), "failed -1004: " + std::string(platform::kPamNoTerminal));
}

}  // namespace
}  // namespace sorvane::test

int main(int argc, char** argv) {
  if (sorvane::test::Asker::isThis()) return sorvane::test::runAsker();
  if (std::getenv("SORVANE_TEST_ACCOUNT") == nullptr) {
    std::fputs("skipped: tests/support/with-test-account starts this program\n", stdout);
    return 77;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
