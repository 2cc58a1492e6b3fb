#include "app/presence_prompt.h"

#include <memory>
#include <optional>
#include <utility>
#include <variant>

#include "base/unicode.h"

namespace sorvane::app {

using unlock::OwnerPresence;

namespace {

/// What the system's prompt, or a notice before it, can hold: the question's own words, one line each.
std::string reasonOf(const agent::OwnerApprovalPrompt& prompt, const agent::ApprovalContext& context) {
  std::string reason = prompt.reason;
  const auto add = [&](const std::string& name, const std::string& text) {
    reason += "\n" + name + ": " + base::escapedForDisplay(text);
  };
  add("Connection", context.label);
  if (prompt.requestor) add("It says", *prompt.requestor);
  for (const std::string& word : context.commandWords) add("Word", word);
  if (context.directory) add("Folder", *context.directory);
  for (const std::string& detail : context.details) reason += "\n" + base::escapedForDisplay(detail);
  return reason;
}

struct Pending {
  base::Mutex mutex;
  base::Condition answered;
  std::optional<OwnerPresence::Answer> answer GUARDED_BY(mutex);
};

}  // namespace

agent::SystemOwnerPrompt::Answer PresencePrompt::ask(const agent::OwnerApprovalPrompt& prompt,
                                                     const agent::ApprovalContext& context) {
  {
    base::Lock lock(turnMutex_);
    turnEnded_.wait(lock.mutex(), context.withdrawn, [this]() REQUIRES(turnMutex_) { return !isTaken_; });
    if (context.withdrawn.stop_requested()) return {};
    isTaken_ = true;
  }
  Answer answer;
  ports_.askFor(context.processes.empty() ? 0 : context.processes.front().pid);
  if (auto sentence = ports_.presence.unavailable()) {
    answer.unavailable = std::move(sentence);
  } else {
    const auto pending = std::make_shared<Pending>();
    ports_.presence.ask(OwnerPresence::Check::presence, reasonOf(prompt, context), [pending](const auto& given) {
      const base::Lock lock(pending->mutex);
      pending->answer = given;
      pending->answered.notify_all();
    });
    base::Lock lock(pending->mutex);
    pending->answered.wait(lock.mutex(), context.withdrawn,
                           [&]() REQUIRES(pending->mutex) { return pending->answer.has_value(); });
    answer.granted = pending->answer && std::holds_alternative<OwnerPresence::Granted>(*pending->answer);
  }
  if (context.withdrawn.stop_requested()) {
    ports_.presence.withdraw();
    answer.granted = false;
  }
  if (answer.granted && ports_.onAnswer) ports_.onAnswer();
  const base::Lock lock(turnMutex_);
  isTaken_ = false;
  turnEnded_.notify_all();
  return answer;
}

}  // namespace sorvane::app
