#pragma once

#include <optional>
#include <stop_token>

#include "agent/approval.h"
#include "phone/approval_details.h"
#include "phone/approver_server.h"

namespace sorvane::app {

/// What a yes on a phone does to the locked vault.
enum class PhoneYes {
  none,    ///< the policy has others allow things: no phone is asked
  opens,   ///< nobody can tell what the policy says: the vault opens, and its owner does not count as there
  vouches  ///< the vault opens, and its owner counts as there
};

/// PhoneQuestions puts questions to the paired phones. Any thread.
class PhoneQuestions {
 public:
  using Answer = phone::ApproverServer::Answer;
  using Yes = phone::ApproverServer::Yes;
  virtual ~PhoneQuestions() = default;
  /// Whether a phone is paired and could come to answer.
  virtual bool isServed() const = 0;
  /// Whether one is there now.
  virtual bool isConnected() const = 0;
  virtual PhoneYes unlockingYes() = 0;
  /// Blocks until a phone gave an answer that settles it, `withdrawn` was stopped, or the question's time is over. Does
  /// not throw.
  virtual Answer ask(const phone::ApprovalDetails& details, const std::stop_token& withdrawn, Yes yes) = 0;
};

/// Says on standard error which phone answered what.
void noteAnswer(const PhoneQuestions::Answer& answer);

/// Longest question, in bytes of its JSON: with what the link puts around it, sealed and in base64, it fits a frame.
inline constexpr std::size_t kLongestQuestion = 47000;

/// The question as a phone shows it: all that the terminal would show, a line each, with the caller's words quoted so
/// that none passes for ours. nullopt for one that is too long for a phone, where no yes may be given to what is not
/// shown.
std::optional<phone::ApprovalDetails> phoneQuestion(const agent::OwnerApprovalPrompt& prompt,
                                                    const agent::ApprovalContext& context);

}  // namespace sorvane::app
