#pragma once

#include <chrono>
#include <list>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

#include "agent/approval.h"
#include "base/descriptor.h"
#include "base/mutex.h"

namespace sorvane::agent {

/// How long a question stands on the terminal.
inline constexpr std::chrono::seconds kAnswerSeconds{120};
/// How long the terminal is left alone behind a question that vanished: a yes on its way to that one must not fall on
/// another in its place.
inline constexpr std::chrono::milliseconds kHandsRest{1000};

/// TerminalApprover asks on the terminal that the application runs on. One question stands at a time, the others wait
/// in their order. What was typed before a question appeared is discarded; only "y" or "yes" and Enter allow, and
/// nothing does where the yes that counts is the phone's: only a no is an answer then, and the question stands behind
/// any other line. No answer in `patience`, and a terminal that closed, are no answer. Requests of the same caller and
/// process whose bytes are equal and that are waiting when the answer is typed are answered with it, where their
/// operation only reads. Any thread.
class TerminalApprover final : public ApprovalProvider {
 public:
  /// Takes the descriptors of the terminal, which may be the same file opened twice.
  TerminalApprover(base::Descriptor input, base::Descriptor output, std::chrono::milliseconds patience = kAnswerSeconds,
                   std::chrono::milliseconds rest = kHandsRest)
      : input_(std::move(input)), output_(std::move(output)), patience_(patience), rest_(rest) {}

  std::optional<bool> ask(const OwnerApprovalPrompt& prompt, const ApprovalContext& context) override;

  /// Waits until no question stands on the terminal, in the order of the questions; it stays free of them while the
  /// result lives, which must not outlive this object. nullptr when `withdrawn` was stopped first.
  std::shared_ptr<void> takeTurn(const std::stop_token& withdrawn) EXCLUDES(mutex_);

 private:
  struct Waiting;
  class Turn;
  /// Asks the terminal; the caller holds the turn.
  std::optional<bool> put(const Waiting& own, const OwnerApprovalPrompt& prompt);
  std::optional<std::string> readLine(const std::stop_token& withdrawn, std::chrono::steady_clock::time_point until);
  /// Waits for the turn of `own`, which is queued already; false when it needs none any more.
  bool waitForTurn(Waiting& own, const std::stop_token& withdrawn) EXCLUDES(mutex_);
  /// Waits where the question before vanished just now; false when this one is withdrawn meanwhile.
  bool letHandsRest(const std::stop_token& withdrawn) EXCLUDES(mutex_);
  void endTurn(Waiting& own) EXCLUDES(mutex_);
  std::size_t countEqual(const Waiting& own) EXCLUDES(mutex_);
  /// Hands the answer to the equal requests that wait; returns how many there were with the own one.
  std::size_t answerEqual(const Waiting& own, bool answer) EXCLUDES(mutex_);
  void show(std::string_view text);

  // Constant after construction.
  const base::Descriptor input_;
  const base::Descriptor output_;
  const std::chrono::milliseconds patience_, rest_;
  // Of whoever has the turn.
  std::chrono::steady_clock::time_point restsUntil_{};
  // Guarded. A leaf: the terminal is used without it, by whoever has the turn.
  base::Mutex mutex_;
  base::Condition turnChanged_;
  bool taken_ GUARDED_BY(mutex_) = false;
  std::list<Waiting*> waiting_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::agent
