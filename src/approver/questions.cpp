#include "approver/questions.h"

#include <algorithm>

#include "base/unicode.h"

namespace sorvane::approver {
namespace {

constexpr std::string_view kPrompt = "Allow this? Type y or n, and Enter. [y/n] ";

std::string secondsText(base::Instant::duration rest) {
  const auto seconds = std::max<std::int64_t>(0, std::chrono::ceil<std::chrono::seconds>(rest).count());
  return std::to_string(seconds) + (seconds == 1 ? " second" : " seconds");
}

enum class Typed { yes, no, neither };
Typed typedOf(std::string_view line) {
  std::string word(base::trimmed(line));
  for (char& c : word)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  if (word == "y" || word == "yes") return Typed::yes;
  return word == "n" || word == "no" ? Typed::no : Typed::neither;
}

}  // namespace

void Questions::ask(Question question) {
  const auto life = std::min<base::Instant::duration>(question.expiresAt - clock_.wall(), kLongestLife);
  waiting_.push_back({std::move(question), clock_.instant() + life});
  if (waiting_.size() == 1) {
    countsFrom_ = std::max(countsFrom_, clock_.instant());
    showFirst();
  } else {
    // Said without touching the question that is being answered.
    screen_.show("\n(" + std::to_string(waiting_.size() - 1) + " more " + (waiting_.size() == 2 ? "waits" : "wait") +
                 " behind this question.)\n" + std::string(kPrompt));
  }
}

void Questions::showFirst() {
  if (waiting_.empty()) return;
  const Waiting& first = waiting_.front();
  std::string text = shownText(first.question, screen_.width());
  text += "  Time left:    " + secondsText(first.until - clock_.instant()) + "\n";
  if (waiting_.size() > 1) text += "  Behind it:    " + std::to_string(waiting_.size() - 1) + " more\n";
  // Right before the words appear, so that nothing typed earlier is left.
  screen_.discardTyped();
  screen_.show(text + std::string(kPrompt));
}

void Questions::takeBackFirst(std::string_view why) {
  screen_.show("\n" + std::string(why) + "\n");
  waiting_.pop_front();
  countsFrom_ = clock_.instant() + kTimeToNotice;
  showFirst();
}

void Questions::withdraw(const std::string& id) {
  const auto found =
      std::find_if(waiting_.begin(), waiting_.end(), [&id](const Waiting& each) { return each.question.id == id; });
  if (found == waiting_.end()) return;
  if (found == waiting_.begin())
    takeBackFirst("The computer needs no answer to this any more. Nothing was answered here.");
  else
    waiting_.erase(found);
}

void Questions::withdrawAll() {
  if (waiting_.empty()) return;
  waiting_.clear();
  countsFrom_ = clock_.instant() + kTimeToNotice;
  screen_.show("\nThe link ended before this was answered. Nothing was answered here.\n");
}

void Questions::expire() {
  const base::Instant now = clock_.instant();
  if (waiting_.empty()) return;
  std::erase_if(waiting_, [&](const Waiting& each) { return &each != &waiting_.front() && each.until <= now; });
  if (waiting_.front().until <= now)
    takeBackFirst("The time for this is over. Nothing was answered. The computer can ask again.");
}

std::optional<Questions::Answer> Questions::take(std::string_view line) {
  expire();
  if (waiting_.empty()) return std::nullopt;
  if (clock_.instant() < countsFrom_) {
    remind("That was typed when this question had just appeared, so it does not count.\n");
    return std::nullopt;
  }
  const Typed typed = typedOf(line);
  if (typed == Typed::neither) {
    remind("");
    return std::nullopt;
  }
  const Question& question = waiting_.front().question;
  Answer answer{question.id, typed == Typed::yes, question.macName};
  waiting_.pop_front();
  countsFrom_ = clock_.instant();
  return answer;
}

void Questions::remind(std::string_view why) {
  screen_.show(std::string(why) + std::string(kPrompt));
}

std::optional<base::Instant> Questions::nextExpiry() const {
  if (waiting_.empty()) return std::nullopt;
  return std::min_element(waiting_.begin(), waiting_.end(),
                          [](const Waiting& a, const Waiting& b) { return a.until < b.until; })
      ->until;
}

}  // namespace sorvane::approver
