#include "app/phone_presence.h"

#include <utility>

#include "base/mutex.h"
#include "unlock/unlock_error.h"

namespace sorvane::app {

namespace {

constexpr char kNoPhoneAnswered[] =
    "No phone answered. Nothing was unlocked. Look whether the phone is in the same network and sorvane-approver runs.";

phone::ApprovalDetails unlockQuestion(const std::string& reason, std::string requestor) {
  phone::ApprovalDetails details;
  details.kind = phone::ApprovalDetails::Kind::unlock;
  details.reason = reason;
  details.requestor = std::move(requestor);
  return details;
}

}  // namespace

/// One question, and those who have yet to answer it.
class PhonePresence::Race {
 public:
  Race(Reply reply, int asked, std::shared_ptr<std::atomic<bool>> isVouchedFor)
      : isVouchedFor_(std::move(isVouchedFor)), reply_(std::move(reply)), waitedFor_(asked) {}

  std::stop_token over() const { return over_.get_token(); }
  /// The answer, for the first; whether it was that. `vouches`: of a yes.
  bool give(const Answer& answer, bool vouches) {
    Reply reply;
    {
      const base::Lock lock(mutex_);
      if (!reply_) return false;
      reply = std::exchange(reply_, nullptr);
      *isVouchedFor_ = vouches && std::holds_alternative<Granted>(answer);
    }
    over_.request_stop();
    reply(answer);
    return true;
  }
  /// Whoever was asked has none; what the last one had to say is the answer, or what the system said.
  void none(Failed why, bool isSystem) {
    {
      const base::Lock lock(mutex_);
      if (isSystem || !failure_) failure_ = std::move(why);
      if (--waitedFor_ > 0) return;
      why = *failure_;
    }
    give(why, false);
  }
  void drop() {
    {
      const base::Lock lock(mutex_);
      reply_ = nullptr;
    }
    over_.request_stop();
  }

 private:
  const std::shared_ptr<std::atomic<bool>> isVouchedFor_;
  std::stop_source over_;
  // Guarded. A leaf.
  base::Mutex mutex_;
  Reply reply_ GUARDED_BY(mutex_);
  int waitedFor_ GUARDED_BY(mutex_);
  std::optional<Failed> failure_ GUARDED_BY(mutex_);
};

std::optional<std::string> PhonePresence::unlockUnavailable() {
  auto missing = ports_.system.unavailable();
  if (missing && ports_.phones.isConnected() && ports_.phones.unlockingYes() != PhoneYes::none) return std::nullopt;
  return missing;
}

void PhonePresence::ask(Check check, const std::string& reason, Reply reply) {
  stop();
  *isVouchedFor_ = false;
  const bool isSystemThere = !ports_.system.unavailable();
  const bool mayAsk = reason == unlock::kUnlockReason && ports_.mayAskPhones() &&
                      (isSystemThere ? ports_.phones.isServed() : ports_.phones.isConnected());
  const PhoneYes phoneYes = mayAsk ? ports_.phones.unlockingYes() : PhoneYes::none;
  const auto race =
      std::make_shared<Race>(std::move(reply), isSystemThere && phoneYes != PhoneYes::none ? 2 : 1, isVouchedFor_);
  const auto bySystem = [race](const Answer& answer) {
    const auto* const failed = std::get_if<Failed>(&answer);
    if (failed != nullptr && failed->code != Failed::kNotAccepted) return race->none(*failed, true);
    race->give(answer, true);
  };
  if (phoneYes == PhoneYes::none) return ports_.system.ask(check, reason, bySystem);
  race_ = race;
  asking_ = std::jthread([this, race, phoneYes, details = unlockQuestion(reason, ports_.requestor())] {
    const PhoneQuestions::Answer answer = ports_.phones.ask(details, race->over(), PhoneQuestions::Yes::settles);
    if (answer.is == PhoneQuestions::Answer::Is::none)
      return race->none({Failed::kNotInteractive, kNoPhoneAnswered}, false);
    // Before whoever waits for the answer can ask the next question.
    ports_.thread.post([this, race] {
      if (race_ == race) ports_.system.withdraw();
    });
    noteAnswer(answer);
    if (answer.is == PhoneQuestions::Answer::Is::yes) {
      race->give(Granted{}, phoneYes == PhoneYes::vouches);
    } else {
      race->give(Cancelled{}, false);
    }
  });
  if (isSystemThere) ports_.system.ask(check, reason, bySystem);
}

void PhonePresence::withdraw() {
  if (const auto race = std::exchange(race_, nullptr)) race->drop();
  ports_.system.withdraw();
}

void PhonePresence::stop() {
  if (const auto race = std::exchange(race_, nullptr)) race->drop();
  if (asking_.joinable()) asking_.join();
}

}  // namespace sorvane::app
