#pragma once

#include <functional>
#include <optional>
#include <string>

#include "agent/approval.h"
#include "app/phone_questions.h"

namespace sorvane::app {

/// OwnerAsker puts a question to the terminal that the application runs on and to the paired phones at the same time.
/// The first answer that counts is the answer, and the question goes away elsewhere: a no counts from anywhere, a yes
/// where the policy says so. A question is put nowhere when nobody whose yes counts could see it. Any thread.
class OwnerAsker final : public agent::ApprovalProvider {
 public:
  struct Ports {
    agent::ApprovalProvider* terminal;  ///< nullptr without one
    PhoneQuestions& phones;
  };
  explicit OwnerAsker(Ports ports) : ports_(ports) {}

  bool canAsk(agent::Approver whoseYesCounts) override;
  std::optional<bool> ask(const agent::OwnerApprovalPrompt& prompt, const agent::ApprovalContext& context) override;

 private:
  std::optional<bool> askPhone(phone::ApprovalDetails details, const agent::ApprovalContext& context,
                               const std::stop_token& withdrawn);
  std::optional<bool> askBoth(const agent::OwnerApprovalPrompt& prompt, const agent::ApprovalContext& context,
                              const phone::ApprovalDetails& details);

  const Ports ports_;
};

}  // namespace sorvane::app
