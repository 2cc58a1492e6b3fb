#pragma once

#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>

#include "agent/owner_lock.h"
#include "agent/terminal_approver.h"
#include "base/mutex.h"
#include "base/open_descriptors.h"
#include "platform/shared/terminal_prompt.h"
#include "unlock/owner_presence.h"

namespace sorvane::app {

/// LockScreen is the lock of the vault on the terminal that the application runs on: while the vault is locked it says
/// what opens it and reads the answer there, in turns with everybody else who uses that terminal. It also puts the
/// questions that an answer at this terminal settles where the system can check nobody.
///
/// One thread, from `start` to `stop`. Control-C at its prompt ends the application.
class LockScreen final : public unlock::OwnerPresence {
 public:
  /// `approver` owns the terminal and outlives this object. `isAskedHere` says, within `ask`, whether what is to be
  /// confirmed was typed on this terminal just now.
  LockScreen(agent::TerminalApprover& approver, std::function<bool()> isAskedHere)
      : approver_(approver), isAskedHere_(std::move(isAskedHere)) {}
  ~LockScreen() override { stop(); }
  LockScreen(const LockScreen&) = delete;
  LockScreen& operator=(const LockScreen&) = delete;

  /// `isNew`: the vault was never opened, so a passphrase is offered.
  /// `onOffered` is told when the offer was answered.
  void start(agent::OwnerLock& lock, bool isNew, std::function<void()> onOffered);
  void stop();
  /// What the lock shows has changed.
  void wake();

  std::optional<std::string> unavailable() override;
  void ask(Check check, const std::string& reason, Reply reply) override;
  void withdraw() override;

 private:
  struct Question {
    std::string reason;
    Reply reply;
    std::stop_source withdrawn;
  };
  void run(const std::stop_token& stop);
  /// Shows what the lock says and reads the answer.
  void show();
  void showPassphrase(const agent::LockReport& report);
  void showSystem(const agent::LockReport& report);
  void showReset(const agent::LockReport& report);
  void offerPassphrase(const agent::LockReport& report);
  void wasOffered();
  void put(const Question& question);
  /// One line; nullopt when there is none, because the lock changed or the person gave up.
  std::optional<base::SecretText> read(std::string_view prompt, platform::TerminalPrompt::Echo echo);
  /// Shows a text that was not the last.
  void say(const std::string& text);
  void rest();
  void tell(const agent::LockOutcome& outcome);
  std::optional<Question> takeQuestion();

  // Constant after `start`.
  agent::TerminalApprover& approver_;
  const std::function<bool()> isAskedHere_;
  const platform::TerminalPrompt terminal_;
  agent::OwnerLock* lock_ = nullptr;
  std::function<void()> onOffered_;
  // Readable once something changed.
  base::Pipe changed_;
  // Of the thread.
  std::stop_token stop_;
  bool offers_ = false;
  std::string said_;
  // Guarded. A leaf.
  base::Mutex mutex_;
  std::optional<Question> question_ GUARDED_BY(mutex_);
  std::stop_source standing_ GUARDED_BY(mutex_){std::nostopstate};
  std::jthread thread_;
};

}  // namespace sorvane::app
