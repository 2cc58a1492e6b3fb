#include <gtest/gtest.h>
#include <unistd.h>

#include "apple/fake/processes.h"
#include "platform/macos/process_record.h"

namespace sorvane::platform {
namespace {

// Beyond every number that the system gives.
constexpr pid_t kLogin = 5'000'000, kTerminal = 5'000'001, kGone = 5'000'002;

class ProcessRecord : public ::testing::Test {
 protected:
  ProcessRecord() { fake::setStrangers({{kLogin, {kTerminal, "login"}}, {kTerminal, {1, "sixteen-letters-"}}}); }
  ~ProcessRecord() override { fake::setStrangers({}); }
};

TEST_F(ProcessRecord, theWayToTheTerminalLeadsThroughAProcessOfRoot) {
  const auto login = processRecord(kLogin);
  ASSERT_TRUE(login);
  EXPECT_EQ(login->name, "login");
  EXPECT_NE(login->startedAt, 0U);
  const auto terminal = processRecord(login->parent);
  ASSERT_TRUE(terminal);
  EXPECT_EQ(terminal->name, "sixteen-letters-");
  EXPECT_EQ(terminal->parent, 1);
}

TEST_F(ProcessRecord, aProcessOfThisUserHasItsWholeNameAndTheSystemsOwnStart) {
  const auto self = processRecord(::getpid());
  ASSERT_TRUE(self);
  EXPECT_EQ(self->pid, ::getpid());
  EXPECT_EQ(self->parent, ::getppid());
  EXPECT_EQ(self->name, std::string(32, 'n'));
  EXPECT_EQ(processRecord(::getpid())->startedAt, self->startedAt);
}

TEST_F(ProcessRecord, aProcessThatIsGoneIsNone) {
  EXPECT_FALSE(processRecord(kGone));
}

}  // namespace
}  // namespace sorvane::platform
