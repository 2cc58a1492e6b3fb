#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/mutex.h"
#include "base/system.h"
#include "platform/shared/asking_presence.h"
#include "platform/shared/question_threads.h"
#include "unlock/owner_presence.h"

namespace sorvane::platform {

// What stands in the way of asking through polkit, and what to do about it. Nothing was unlocked or shared.
inline constexpr std::string_view kPolkitAsRoot =
    "sorvane runs as root, and the system says yes to root without asking anybody, so it cannot check that it is you. "
    "Nothing was unlocked. Run sorvaned as your own user.";
inline constexpr std::string_view kPolkitAbsent =
    "The system service polkit is not there, so sorvane cannot ask your system whether it is you. Nothing was "
    "unlocked. Install polkitd, or set a passphrase that opens sorvane by itself.";
inline constexpr std::string_view kPolkitSilent =
    "The system service polkit does not answer, so sorvane cannot ask your system whether it is you. Nothing was "
    "unlocked. Try again, or restart polkit.";
inline constexpr std::string_view kAskerGone =
    "The program that asked has ended, so sorvane did not ask whether it is you. Nothing was unlocked. Try again.";
inline constexpr std::string_view kPolkitActionAbsent =
    "The system service polkit does not know the question of sorvane, so it cannot ask whether it is you. Nothing was "
    "unlocked. Install sorvane's package, which brings the file org.sorvane.owner-check.policy.";
inline constexpr std::string_view kPolkitNoAgent =
    "There is no program in your session that could show the system's password prompt. Nothing was unlocked. Start a "
    "polkit agent, such as the one of your desktop, or run sorvane in a terminal.";
inline constexpr std::string_view kPolkitNoQuestion =
    "A rule of this system answers for you without asking, so its yes does not show that it is you. Nothing was "
    "unlocked. Remove the polkit rule or the kept authorization for org.sorvane.owner-check.";
inline constexpr std::string_view kPolkitForbidden =
    "A rule of this system forbids the question whether it is you. Nothing was unlocked. Ask whoever looks after it to "
    "allow org.sorvane.owner-check.";
inline constexpr std::string_view kReasonNowhere =
    "There is no place where sorvane could show you why it asks, so it did not ask. Nothing was unlocked. Run sorvane "
    "in a terminal, or start a notification service.";

/// PolkitOwnerCheck asks the owner through polkit: the action "org.sorvane.owner-check", for the process that asks, so
/// that an agent in the person's own terminal may answer. polkit takes no text from an ordinary caller, so the reason
/// is shown before the question: by `showReason` always, because a process may say that it shows it and leave the
/// question to the desktop; where that fails, the process's word that it does is taken. An answer that needed nobody
/// (root, a rule, a kept authorization) is no answer. Without one within `limit` the answer is Cancelled.
class PolkitOwnerCheck final : public unlock::OwnerPresence {
 public:
  static constexpr std::chrono::seconds kLimit{120};

  struct Ports {
    /// For whom it is asked, in the thread that calls `ask` and `unavailable`; empty or nullopt: for this process.
    std::function<std::optional<Asking>()> asking;
    /// Shows the reason where the person sees it; false: it could not be shown. In a thread of this object.
    std::function<bool(const std::string& reason)> showReason;
    std::chrono::milliseconds limit{kLimit};
  };
  explicit PolkitOwnerCheck(Ports ports);
  /// Takes an open question back and waits for its thread.
  ~PolkitOwnerCheck() override;
  PolkitOwnerCheck(const PolkitOwnerCheck&) = delete;
  PolkitOwnerCheck& operator=(const PolkitOwnerCheck&) = delete;

  /// Asks polkit whether this machine has such questions, without asking one: for this process, so that no asker
  /// chooses what is said, and at most once a second. Waits 300 ms at most; a polkit that does not answer by then, a
  /// missing agent and a reason that cannot be shown are found in a question only.
  std::optional<std::string> unavailable() override;
  void ask(Check check, const std::string& reason, Reply reply) override;
  void withdraw() override;

 private:
  struct Question;
  struct Probe {
    std::chrono::steady_clock::time_point at;
    std::optional<std::string> obstacle;
  };

  Asking askingNow() const;
  Answer answerTo(Question& question);

  // Constant after construction.
  const Ports ports_;
  // Guarded. A leaf.
  base::Mutex mutex_;
  std::optional<Probe> probe_ GUARDED_BY(mutex_);
  // Of the thread that asks.
  std::shared_ptr<Question> question_;
  QuestionThreads threads_;
};

}  // namespace sorvane::platform
