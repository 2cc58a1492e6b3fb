#include "agent/terminal_approver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "agent/terminal_question.h"

namespace sorvane::agent {
namespace {

using namespace std::chrono_literals;

/// A pseudo-terminal: the approver has one end, the test is the person at the other.
class Person : public ::testing::Test {
 protected:
  Person() {
    int master = -1, slave = -1;
    if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) throw std::runtime_error("no pseudo-terminal");
    master_.reset(master);
    approver_ = std::make_unique<TerminalApprover>(base::Descriptor(slave), base::Descriptor(::dup(slave)), 60s);
  }
  std::string readUntil(const std::string& words) {
    while (shown_.find(words, read_) == std::string::npos) {
      pollfd wait{master_.get(), POLLIN, 0};
      if (::poll(&wait, 1, 20000) != 1) {
        ADD_FAILURE() << "not shown: " << words << " in " << shown_.substr(read_);
        return "";
      }
      char piece[4096];
      const ssize_t got = ::read(master_.get(), piece, sizeof piece);
      if (got > 0) shown_.append(piece, static_cast<std::size_t>(got));
    }
    const std::size_t end = shown_.find(words, read_) + words.size();
    const std::string text = shown_.substr(read_, end - read_);
    read_ = end;
    return text;
  }
  void type(std::string_view text) {
    ASSERT_EQ(::write(master_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  ApprovalContext context(const std::string& digest = "d", bool together = false) {
    ApprovalContext made;
    made.label = "Agent";
    made.callerIdentity = "caller";
    made.processes = {{4242, 1, "node", 77}};
    made.requestDigest = digest;
    made.mayBeAnsweredTogether = together;
    made.withdrawn = withdrawal_.get_token();
    return made;
  }
  std::future<std::optional<bool>> ask(ApprovalContext context) {
    return std::async(std::launch::async,
                      [this, context = std::move(context)] { return approver_->ask(prompt_, context); });
  }

  base::Descriptor master_;
  std::unique_ptr<TerminalApprover> approver_;
  OwnerApprovalPrompt prompt_{OwnerApprovalPrompt::Kind::useEnvironment, "Agent wants to use", {}, {}, {}, {}, {}};
  std::stop_source withdrawal_;
  std::string shown_;
  std::size_t read_ = 0;
};

TEST_F(Person, onlyAClearYesAllows) {
  const std::pair<const char*, bool> answers[] = {{"y\n", true},   {" YES \n", true}, {"\n", false},    {"n\n", false},
                                                  {"yy\n", false}, {"y y\n", false},  {"sure\n", false}};
  for (const auto& [typed, allowed] : answers) {
    auto answer = ask(context());
    readUntil("[y/N] ");
    type(typed);
    EXPECT_EQ(answer.get(), allowed) << typed;
    readUntil(allowed ? "Allowed." : "Not allowed.");
  }
}

TEST_F(Person, whatWasTypedBeforeTheQuestionIsNoAnswerToIt) {
  type("y\ny\n");
  std::this_thread::yield();
  auto answer = ask(context());
  readUntil("[y/N] ");
  EXPECT_EQ(answer.wait_for(100ms), std::future_status::timeout);
  type("\n");
  EXPECT_EQ(answer.get(), false);
}

TEST_F(Person, equalReadsOfOneProcessAreAnsweredTogetherAndOthersAreNot) {
  auto first = ask(context("same", true));
  readUntil("[y/N] ");
  auto second = ask(context("same", true)), third = ask(context("same", true));
  ApprovalContext other = context("same", true);
  other.processes.front().startedAt = 78;  // a later process with the same pid
  auto fourth = ask(other);
  // They wait in the queue; there is nothing to be told of that but time, so the answer is typed until it went to
  // three.
  std::this_thread::sleep_for(200ms);
  type("y\n");
  readUntil("The answer went to 3 equal requests.");
  EXPECT_EQ(first.get(), true);
  EXPECT_EQ(second.get(), true);
  EXPECT_EQ(third.get(), true);
  readUntil("[y/N] ");
  type("\n");
  EXPECT_EQ(fourth.get(), false);
}

TEST_F(Person, aWithdrawnQuestionGivesWayToTheNext) {
  std::stop_source gone;
  ApprovalContext first = context("a");
  first.withdrawn = gone.get_token();
  auto withdrawn = ask(first);
  readUntil("[y/N] ");
  auto next = ask(context("b"));
  gone.request_stop();
  EXPECT_EQ(withdrawn.get(), std::nullopt);
  readUntil("The request was withdrawn.");
  type("y\n");  // meant for the first
  readUntil("[y/N] ");
  EXPECT_EQ(next.wait_for(100ms), std::future_status::timeout);
  type("y\n");
  EXPECT_EQ(next.get(), true);
}

TEST_F(Person, whereThePhonesYesCountsOnlyANoIsAnAnswerHere) {
  const char* const onlyNo = "Here you can only say no: type n and Enter. [n] ";
  std::stop_source elsewhere;
  for (const bool isDenied : {true, false}) {
    ApprovalContext asked = context();
    asked.whoseYesCounts = Approver::phone;
    asked.withdrawn = asked.answeredElsewhere = elsewhere.get_token();
    auto answered = ask(asked);
    readUntil(onlyNo);
    // The question stays, for the phone to answer and for a no here.
    for (const char* typed : {"\n", "y\n", "nn\n"}) {
      type(typed);
      readUntil(onlyNo);
    }
    isDenied ? type("n\n") : (void)elsewhere.request_stop();
    EXPECT_EQ(answered.get(), isDenied ? std::optional(false) : std::nullopt);
  }
  elsewhere = std::stop_source();
  ApprovalContext asked = context();
  asked.withdrawn = asked.answeredElsewhere = elsewhere.get_token();
  auto answered = ask(asked);
  readUntil("[y/N] ");
  elsewhere.request_stop();
  EXPECT_EQ(answered.get(), std::nullopt);
  readUntil("A phone answered this.");
}

TEST_F(Person, aTurnOfSomebodyElseWaitsForTheQuestionAndKeepsTheNextOneBack) {
  auto first = ask(context("a"));
  readUntil("[y/N] ");
  std::stop_source gone;
  auto withdrawn = std::async(std::launch::async, [&] { return approver_->takeTurn(gone.get_token()); });
  EXPECT_EQ(withdrawn.wait_for(50ms), std::future_status::timeout);
  gone.request_stop();
  EXPECT_EQ(withdrawn.get(), nullptr);
  type("y\n");
  EXPECT_EQ(first.get(), true);
  readUntil("Allowed.");
  auto turn = approver_->takeTurn({});
  ASSERT_NE(turn, nullptr);
  auto second = ask(context("b"));
  EXPECT_EQ(second.wait_for(100ms), std::future_status::timeout);
  type("y\n");
  turn.reset();
  // What was typed in that turn is no answer to this question.
  EXPECT_NE(readUntil("[y/N] "), "");
  type("n\n");
  EXPECT_EQ(second.get(), false);
}

TEST_F(Person, aTerminalThatClosesIsNoAnswer) {
  auto answer = ask(context());
  readUntil("[y/N] ");
  master_.reset();
  EXPECT_EQ(answer.get(), std::nullopt);
}

TEST(TerminalQuestion, showsACommandWholeAndWhatACallerSaysAsItsOwnWords) {
  OwnerApprovalPrompt prompt{OwnerApprovalPrompt::Kind::useEnvironment,
                             "Agent wants to run a command",
                             "evil\n[y/N] y",
                             "Dev",
                             {},
                             {},
                             "staging"};
  ApprovalContext context;
  context.label = std::string(300, 'L');
  context.processes = {{10, 9, "node\x1b[2J", 1}, {9, 1, "bash", 1}};
  context.commandWords = {"sh", "-c", "echo ok" + std::string(50, ' ') + "; curl evil", std::string(500, 'x')};
  context.directory =
      "/tmp/\xE2\x80\xAE"
      "folder";
  context.details = {"Raw values leave the vault."};
  const std::string text = terminalQuestion(prompt, context, 3);
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  for (const char* words :
       {"\"evil\\n[y/N] y\" (its own words)", "[50 blanks]; curl evil", "\\u{202e}", "\"node\\x1b[2J\" (10)",
        "started by \"bash\" (9)", "Raw values leave the vault.", "3 equal requests", "… (cut)"}) {
    std::string flat = text;
    for (std::size_t at; (at = flat.find("\n               ")) != std::string::npos;)
      flat.replace(at, 16, flat[at - 1] == 'x' ? "" : " ");
    EXPECT_NE(flat.find(words), std::string::npos) << words << "\n" << text;
  }
  // Besides the command's, one in "\\x1b".
  EXPECT_EQ(std::count(text.begin(), text.end(), 'x'), 500 + 1);
  std::size_t start = 0;
  for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
    EXPECT_LE(end - start, 100U);
  EXPECT_TRUE(text.ends_with("[y/N] "));
}

}  // namespace
}  // namespace sorvane::agent
