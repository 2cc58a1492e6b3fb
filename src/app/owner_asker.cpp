#include "app/owner_asker.h"

#include <thread>

#include "base/diagnostics.h"
#include "base/mutex.h"

namespace sorvane::app {

using agent::Approver;

namespace {

constexpr std::string_view kOnlyNo = "Your policy has the terminal of sorvaned allow this. Here you can only say no.";
constexpr std::string_view kTooLong =
    "a question is too long for a phone to show it whole, so it was not put there; whoever else may answer was asked";

/// The first answer that came, which withdraws the question from all who did not give it.
class FirstAnswer {
 public:
  explicit FirstAnswer(const std::stop_token& withdrawn) : outer_(withdrawn, Stop{over_}) {}
  FirstAnswer(const FirstAnswer&) = delete;
  FirstAnswer& operator=(const FirstAnswer&) = delete;

  std::stop_token over() const { return over_.get_token(); }
  std::stop_token given() const { return given_.get_token(); }
  /// Nobody is waited for any longer.
  void end() { over_.request_stop(); }
  void give(std::optional<bool> answer) {
    if (!answer) return;
    {
      const base::Lock lock(mutex_);
      if (first_) return;
      first_ = answer;
    }
    given_.request_stop();
    over_.request_stop();
  }
  std::optional<bool> get() {
    const base::Lock lock(mutex_);
    return first_;
  }

 private:
  struct Stop {
    std::stop_source source;
    void operator()() { source.request_stop(); }
  };
  std::stop_source over_, given_;
  const std::stop_callback<Stop> outer_;
  // Guarded. A leaf.
  base::Mutex mutex_;
  std::optional<bool> first_ GUARDED_BY(mutex_);
};

}  // namespace

bool OwnerAsker::canAsk(Approver whose) {
  switch (whose) {
    case Approver::terminal:
      return ports_.terminal != nullptr;
    case Approver::phone:
      return ports_.phones.isServed();
    case Approver::any:
      return ports_.terminal != nullptr || ports_.phones.isServed();
    case Approver::system:
      return false;
  }
  return false;
}

std::optional<bool> OwnerAsker::ask(const agent::OwnerApprovalPrompt& prompt, const agent::ApprovalContext& context) {
  const Approver whose = context.whoseYesCounts;
  if (!canAsk(whose)) return std::nullopt;
  std::optional<phone::ApprovalDetails> details;
  if (ports_.phones.isServed()) {
    details = phoneQuestion(prompt, context);
    if (!details) base::diagnose("phone", kTooLong);
  }
  if (!details)
    return whose == Approver::phone ? std::nullopt
           : ports_.terminal        ? ports_.terminal->ask(prompt, context)
                                    : std::nullopt;
  if (ports_.terminal != nullptr) return askBoth(prompt, context, *details);
  // The system is asked at once where no phone is there to answer.
  if (whose == Approver::any && !ports_.phones.isConnected()) return std::nullopt;
  return askPhone(*std::move(details), context, context.withdrawn);
}

std::optional<bool> OwnerAsker::askPhone(phone::ApprovalDetails details, const agent::ApprovalContext& context,
                                         const std::stop_token& withdrawn) {
  const bool onlyNo = context.whoseYesCounts == Approver::terminal;
  if (onlyNo) details.reason.append("\n").append(kOnlyNo);
  using Yes = PhoneQuestions::Yes;
  // A yes that does not count takes the question off nobody else's phone, where a no may still come from.
  const PhoneQuestions::Answer answer =
      ports_.phones.ask(details, withdrawn, onlyNo ? Yes::doesNotCount : Yes::settles);
  if (answer.is != PhoneQuestions::Answer::Is::none) noteAnswer(answer);
  if (answer.is == PhoneQuestions::Answer::Is::no) return false;
  if (answer.is == PhoneQuestions::Answer::Is::yes) return true;
  return std::nullopt;
}

std::optional<bool> OwnerAsker::askBoth(const agent::OwnerApprovalPrompt& prompt, const agent::ApprovalContext& context,
                                        const phone::ApprovalDetails& details) {
  FirstAnswer first(context.withdrawn);
  agent::ApprovalContext onTerminal = context;
  onTerminal.withdrawn = first.over();
  onTerminal.answeredElsewhere = first.given();
  {
    const std::jthread phones([&] { first.give(askPhone(details, context, first.over())); });
    first.give(ports_.terminal->ask(prompt, onTerminal));
    // The terminal has given up. A phone that could only say no is not waited for, and one that is not there only where
    // nobody else is asked next.
    const bool systemIsNext = context.whoseYesCounts == Approver::any && !ports_.phones.isConnected();
    if (context.whoseYesCounts == Approver::terminal || systemIsNext) first.end();
  }
  return first.get();
}

}  // namespace sorvane::app
