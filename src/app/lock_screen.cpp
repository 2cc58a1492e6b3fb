#include "app/lock_screen.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "base/diagnostics.h"
#include "base/open_descriptors.h"
#include "base/unicode.h"
#include "platform/adapters_terminal.h"
#include "unlock/unlock_error.h"

namespace sorvane::app {

using agent::LockOutcome;
using agent::LockReport;
using platform::TerminalPrompt;
using Echo = TerminalPrompt::Echo;

namespace {

constexpr std::string_view kOffer =
    "Without a passphrase any program that runs as this user can read the values that sorvane keeps. With one they lie "
    "sealed, and sorvane asks for it when it starts and after it was locked. It cannot be recovered: without it, only "
    "a "
    "backup brings the values back.";
constexpr std::string_view kOfferForKeyring =
    "With a passphrase sorvane asks for it when it starts and after it was locked. It cannot be recovered.";
constexpr std::string_view kOfferSkipped =
    "No passphrase was set, so nothing is sealed. Set one at any time with `sorvane passphrase set`.";
constexpr std::string_view kReset = "Type reset and Enter to put fresh settings in their place: ";
// No prompt stands for ever: after this long it is shown again.
constexpr std::chrono::hours kPatience{12};

/// Whether nothing but a passphrase would ever open the vault.
bool isOnlyWay(const LockReport& report) {
  return report.systemCheckUnavailable && !report.phoneUnlocks && !(report.followsSession && report.sessionIsReported);
}

agent::LockCaller here(const std::stop_token& stop) {
  return {.peer = 0, .isOwnTerminal = true, .gone = stop};
}

}  // namespace

void LockScreen::start(agent::OwnerLock& lock, bool isNew, std::function<void()> onOffered) {
  lock_ = &lock;
  onOffered_ = std::move(onOffered);
  offers_ = isNew;
  changed_ = base::openWakePipe().value_or(base::Pipe());
  thread_ = std::jthread([this](const std::stop_token& stop) {
    try {
      run(stop);
    } catch (const std::exception& error) {
      base::diagnose("app", std::string("the lock screen on the terminal ended: ") + error.what());
    }
  });
}

void LockScreen::stop() {
  if (!thread_.joinable()) return;
  thread_.request_stop();
  withdraw();
  wake();
  thread_.join();
}

void LockScreen::wake() {
  base::wake(changed_);
}

std::optional<std::string> LockScreen::unavailable() {
  if (terminal_.isThere()) return std::nullopt;
  return "The terminal that sorvaned was started on is gone, so nobody can answer there. Nothing was changed. Start "
         "sorvaned again in a terminal.";
}

void LockScreen::ask(Check, const std::string& reason, Reply reply) {
  // Who typed it here has answered already.
  if (isAskedHere_()) return reply(Granted{});
  {
    const base::Lock lock(mutex_);
    question_ = Question{reason, std::move(reply), std::stop_source()};
  }
  wake();
}

void LockScreen::withdraw() {
  std::optional<Question> dropped;
  {
    const base::Lock lock(mutex_);
    dropped = std::exchange(question_, std::nullopt);
    standing_.request_stop();
  }
  if (dropped) dropped->reply(Cancelled{});
}

std::optional<LockScreen::Question> LockScreen::takeQuestion() {
  const base::Lock lock(mutex_);
  auto question = std::exchange(question_, std::nullopt);
  if (question) standing_ = question->withdrawn;
  return question;
}

void LockScreen::put(const Question& question) {
  agent::OwnerApprovalPrompt prompt;
  prompt.reason = question.reason;
  agent::ApprovalContext context;
  context.label = "Terminal";
  context.isController = true;
  context.withdrawn = question.withdrawn.get_token();
  const auto answer = approver_.ask(prompt, context);
  answer.value_or(false) ? question.reply(Granted{}) : question.reply(Cancelled{});
}

void LockScreen::run(const std::stop_token& stop) {
  stop_ = stop;
  while (!stop_.stop_requested() && terminal_.isThere()) {
    base::drain(changed_);
    if (const auto question = takeQuestion()) {
      put(*question);
      continue;
    }
    show();
  }
}

void LockScreen::show() {
  const LockReport report = lock_->report();
  if (report.isUnlocked || report.isAsking) {
    said_.clear();
    return rest();
  }
  const bool canSet = report.requirement == "off" && !report.hasPassphrase && report.prompt != "reset";
  // A passphrase came from elsewhere.
  if (!canSet && std::exchange(offers_, false)) wasOffered();
  if (canSet && (offers_ || isOnlyWay(report))) return offerPassphrase(report);
  if (report.prompt == "passphrase") return showPassphrase(report);
  if (report.prompt == "system") return showSystem(report);
  if (report.prompt == "reset") return showReset(report);
  say(report.sentence);
  rest();
}

void LockScreen::showPassphrase(const LockReport& report) {
  say(report.sentence);
  auto typed = read("Passphrase: ", Echo::no);
  if (typed) tell(lock_->unlockWithPassphrase(*std::move(typed), here(stop_)));
}

void LockScreen::showSystem(const LockReport& report) {
  say(report.sentence);
  const auto typed = read("Press Enter to unlock, or type p and Enter for your login password: ", Echo::yes);
  if (!typed) return;
  const auto method = typed->view() == "p" ? agent::OwnerLock::Method::password : agent::OwnerLock::Method::first;
  // The system's question may be answered here, too.
  const auto question = platform::askOnTerminal(std::string(unlock::kUnlockReason));
  const auto turn = question->answersHere() ? approver_.takeTurn(stop_) : nullptr;
  agent::LockCaller caller = here(stop_);
  caller.answersItself = question->answersHere();
  caller.peer = ::getpid();
  tell(lock_->unlockWithSystem(method, caller));
}

void LockScreen::showReset(const LockReport& report) {
  say(report.storeIsSealed ? report.sentence : report.sentence + " " + std::string(unlock::kResetConfirmation));
  const auto typed = read(kReset, Echo::yes);
  if (typed && typed->view() == "reset") tell(lock_->reset(here(stop_)));
}

void LockScreen::offerPassphrase(const LockReport& report) {
  const bool mustBe = isOnlyWay(report);
  std::string why = mustBe ? *report.systemCheckUnavailable + " " : std::string();
  why += report.store == "embedded" ? kOffer : kOfferForKeyring;
  say(why);
  auto first = read(mustBe ? "New passphrase: " : "New passphrase, or Enter for none: ", Echo::no);
  if (!first) return;
  if (first->empty() && !mustBe) {
    say(std::string(kOfferSkipped));
    return wasOffered();
  }
  auto again = read("The same again: ", Echo::no);
  if (!again) return;
  base::SecretText passphrase = first->clone();
  const LockOutcome set =
      lock_->setPassphrase({.text = *std::move(first), .confirmation = *std::move(again)}, "only", here(stop_));
  if (set.kind != LockOutcome::Kind::done) return tell(set);
  wasOffered();
  tell(lock_->unlockWithPassphrase(std::move(passphrase), here(stop_)));
}

void LockScreen::wasOffered() {
  offers_ = false;
  if (onOffered_) onOffered_();
}

std::optional<base::SecretText> LockScreen::read(std::string_view prompt, Echo echo) {
  const auto turn = approver_.takeTurn(stop_);
  if (!turn) return std::nullopt;
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  auto line = terminal_.read(prompt, echo, deadline, changed_.read.get());
  if (line || stop_.stop_requested() || std::chrono::steady_clock::now() >= deadline) return line;
  pollfd changed{changed_.read.get(), POLLIN, 0};
  const bool hasChanged = ::poll(&changed, 1, 0) > 0;
  // In raw mode the terminal sends no signal of its own.
  if (!hasChanged && terminal_.isThere()) {
    ::kill(::getpid(), SIGINT);
    rest();
  }
  return std::nullopt;
}

void LockScreen::say(const std::string& text) {
  if (said_ == text) return;
  said_ = text;
  if (const auto turn = approver_.takeTurn(stop_)) terminal_.show("\r\n" + base::escapedForDisplay(text) + "\r\n");
}

void LockScreen::tell(const LockOutcome& outcome) {
  if (outcome.kind == LockOutcome::Kind::refused) said_.clear();
  if (!outcome.sentence.empty()) say(outcome.sentence);
}

void LockScreen::rest() {
  pollfd changed{changed_.read.get(), POLLIN, 0};
  while (!stop_.stop_requested() && ::poll(&changed, 1, -1) < 0 && errno == EINTR) {
  }
}

}  // namespace sorvane::app
