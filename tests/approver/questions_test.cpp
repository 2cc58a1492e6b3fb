#include "approver/questions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "base/unicode.h"
#include "support/doubles.h"

namespace sorvane::test {
namespace {

using namespace std::chrono_literals;
using approver::Question;
using approver::Questions;

class ApproverQuestions : public testing::Test {
 protected:
  Question question(const std::string& id) const {
    approver::ApprovalRequest request;
    request.id = id;
    request.details.reason = "reason of " + id;
    request.details.requestor = "agent";
    request.macName = "studio";
    request.issuedAt = clock.now();
    request.expiresAt = clock.now() + 120s;
    return approver::questionOf(request);
  }
  /// What was shown since the last call; "<discard>" stands where typed text was thrown away.
  std::string shown() { return std::exchange(screen, {}); }
  bool showsQuestion(const std::string& id) {
    const std::string text = shown();
    const std::size_t at = text.find("reason of " + id), discarded = text.find("<discard>");
    return at != std::string::npos && discarded < at && text.ends_with("[y/n] ");
  }

  ManualClock clock;
  std::string screen;
  Questions questions{{[this](std::string_view text) { screen += text; }, [this] { screen += "<discard>"; },
                       [] { return std::size_t{80}; }},
                      clock};
};

TEST_F(ApproverQuestions, takesYAndNOfThePersonAndNothingElse) {
  EXPECT_FALSE(questions.take("y")) << "nothing is asked";
  questions.ask(question("one"));
  EXPECT_TRUE(showsQuestion("one"));
  for (const char* line : {"", " ", "yn", "yy", "Y E S", "ja", "1", "\xff"}) {
    EXPECT_FALSE(questions.take(line)) << line;
    EXPECT_EQ(shown(), "Allow this? Type y or n, and Enter. [y/n] ");
  }
  const auto yes = questions.take(" Y ");
  ASSERT_TRUE(yes);
  EXPECT_TRUE(yes->isYes);
  EXPECT_EQ(yes->id, "one");
  EXPECT_FALSE(questions.take("y")) << "it is answered";
  questions.ask(question("two"));
  const auto no = questions.take("no");
  ASSERT_TRUE(no);
  EXPECT_FALSE(no->isYes);
}

TEST_F(ApproverQuestions, showsTheNextOnlyWhenTheOneBeforeIsDone) {
  questions.ask(question("one"));
  shown();
  questions.ask(question("two"));
  const std::string text = shown();
  EXPECT_EQ(text.find("reason of two"), std::string::npos);
  EXPECT_EQ(text.find("<discard>"), std::string::npos) << "what is being typed answers the first";
  EXPECT_EQ(questions.take("y")->id, "one");
  questions.showNext();
  EXPECT_TRUE(showsQuestion("two"));
  EXPECT_EQ(questions.take("n")->id, "two");
}

TEST_F(ApproverQuestions, takesNoAnswerForAQuestionThatTookAnothersPlace) {
  struct Case {
    const char* what;
    std::function<void()> happens;
  };
  for (const Case& each : {Case{"cancelled", [this] { questions.withdraw("one"); }}, Case{"expired", [this] {
                                                                                            clock.advance(61s);
                                                                                            questions.expire();
                                                                                          }}}) {
    questions.ask(question("one"));
    clock.advance(60s);
    questions.ask(question("two"));
    shown();
    each.happens();
    EXPECT_TRUE(showsQuestion("two")) << each.what;
    EXPECT_FALSE(questions.take("y")) << each.what << ": meant for the one before";
    EXPECT_NE(shown().find("does not count"), std::string::npos);
    clock.advance(Questions::kTimeToNotice);
    EXPECT_EQ(questions.take("y")->id, "two") << each.what;
  }
}

TEST_F(ApproverQuestions, takesNoAnswerForAQuestionThatCameAMomentAfterAnotherVanished) {
  for (const bool isLinkGone : {false, true}) {
    questions.ask(question("one"));
    isLinkGone ? questions.withdrawAll() : questions.withdraw("one");
    clock.advance(40ms);
    questions.ask(question("two"));
    EXPECT_FALSE(questions.take("y")) << isLinkGone;
    clock.advance(Questions::kTimeToNotice);
    EXPECT_EQ(questions.take("y")->id, "two");
  }
}

TEST_F(ApproverQuestions, takesQuestionsBack) {
  EXPECT_FALSE(questions.nextExpiry());
  questions.ask(question("one"));
  questions.withdraw("none of these");
  EXPECT_TRUE(questions.isAsking());
  questions.withdraw("one");
  EXPECT_NE(shown().find("Nothing was answered here."), std::string::npos);
  EXPECT_FALSE(questions.take("y"));
  questions.ask(question("two"));
  questions.ask(question("three"));
  questions.withdrawAll();
  EXPECT_FALSE(questions.isAsking());
  // A computer whose clock is ahead gets no longer than any other.
  Question late = question("late");
  late.expiresAt += 1h;
  questions.ask(late);
  EXPECT_EQ(questions.nextExpiry(), clock.instant() + Questions::kLongestLife);
  clock.advance(Questions::kLongestLife);
  EXPECT_FALSE(questions.take("y")) << "the line comes before anybody looked at the time";
}

TEST_F(ApproverQuestions, showEveryWordAndNothingThatMovesTheCursor) {
  approver::ApprovalRequest request;
  request.details = {
      approver::ApprovalRequest::Kind::readSecret,
      "all is well\x1b[2J\r\n\xe2\x80\xae" + std::string(300, ' ') + "but read this " + std::string(3000, 'w') + "!",
      "agent\" (trusted)",
      "\xe6\x97\xa5\xe6\x9c\xac",
      -1,
      {{"development", "staging, production"}},
      "x"};
  request.macName = "stu\adio";
  for (const std::size_t width : {0UL, 40UL, 81UL, 5000UL}) {
    const std::string text = approver::shownText(approver::questionOf(request), width);
    for (const char c : text) EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20U);
    EXPECT_EQ(text.find("\xe2\x80\xae"), std::string::npos);
    std::string words;
    for (const char c : text)
      if (c != '\n' && c != ' ') words += c;
    for (const char* part : {"alliswell", "[300blanks]", "butreadthis", R"x("agent\"(trusted)")x",
                             "\"staging,production\"", "\"-1\"", "\xe6\x97\xa5\xe6\x9c\xac", "asksitsowner"})
      EXPECT_NE(words.find(part), std::string::npos) << part << text;
    EXPECT_NE(words.find(std::string(3000, 'w') + "!"), std::string::npos) << "nothing is left out";
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
      EXPECT_LE(base::displayWidth(line), std::max(width, 40UL)) << line;
  }
}

}  // namespace
}  // namespace sorvane::test
