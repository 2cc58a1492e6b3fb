#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "app/phone_questions.h"
#include "unlock/executor.h"
#include "unlock/owner_presence.h"

namespace sorvane::app {

/// PhonePresence asks the paired phones beside the system, where what is asked is to unlock the vault. The first answer
/// counts and the question is withdrawn from the other; a check that the system could not make is no answer, for which
/// the phones are waited for. Everything else that the system is asked, it is asked alone. Called on one thread.
class PhonePresence final : public unlock::OwnerPresence {
 public:
  struct Ports {
    unlock::OwnerPresence& system;
    PhoneQuestions& phones;
    /// Has the one thread on which all this is called.
    unlock::Executor& thread;
    /// Whether what is asked now may be put to a phone; within `ask`.
    std::function<bool()> mayAskPhones;
    /// Who asks now, for the phone to show; within `ask`.
    std::function<std::string()> requestor;
  };
  explicit PhonePresence(Ports ports) : ports_(std::move(ports)) {}
  ~PhonePresence() override { stop(); }
  PhonePresence(const PhonePresence&) = delete;
  PhonePresence& operator=(const PhonePresence&) = delete;

  std::optional<std::string> unavailable() override { return ports_.system.unavailable(); }
  std::optional<std::string> unlockUnavailable() override;
  void ask(Check check, const std::string& reason, Reply reply) override;
  void withdraw() override;
  /// Whether the owner who allowed something last counts as there.
  bool isVouchedFor() const { return *isVouchedFor_; }
  /// Withdraws what is asked, and waits until nothing of it runs any more.
  void stop();

 private:
  class Race;

  const Ports ports_;
  /// Shared with replies that may come late.
  const std::shared_ptr<std::atomic<bool>> isVouchedFor_ = std::make_shared<std::atomic<bool>>(false);
  // Of the one thread.
  std::shared_ptr<Race> race_;
  std::jthread asking_;
};

}  // namespace sorvane::app
