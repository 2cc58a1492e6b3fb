#include "app/velocity_asker.h"

#include "proxy/money.h"

namespace sorvane::app {
namespace {

agent::OwnerApprovalPrompt promptOf(const proxy::VelocityQuestion& question) {
  agent::OwnerApprovalPrompt prompt;
  prompt.kind = agent::OwnerApprovalPrompt::Kind::other;
  prompt.reason = question.client + " wants to go on calling models with the environment '" + question.environmentName +
                  "': it spent " + proxy::dollarsOf(question.chargedCents) + " within a minute, and your limit is " +
                  proxy::dollarsOf(question.limitCents);
  prompt.subject = question.environmentName;
  return prompt;
}

}  // namespace

void VelocityAsker::ask(const proxy::VelocityQuestion& question, std::function<void(bool goOn)> answer) {
  notifier_.notify("sorvane · agent calls paused",
                   question.client + " spent " + proxy::dollarsOf(question.chargedCents) +
                       " within a minute. Its calls wait for your answer, or for `sorvane proxy resume`.");
  if (approver_ == nullptr) return;
  const base::Lock lock(mutex_);
  waiting_.push_back({question, std::move(answer)});
  changed_.notify_all();
  if (!thread_.joinable()) thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

void VelocityAsker::run(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    Waiting next;
    {
      base::Lock lock(mutex_);
      changed_.wait(lock.mutex(), stop, [this]() REQUIRES(mutex_) { return !waiting_.empty(); });
      if (waiting_.empty()) return;
      next = std::move(waiting_.front());
      waiting_.pop_front();
    }
    agent::ApprovalContext context;
    context.label = next.question.client;
    context.callerIdentity = next.question.lookupId;
    context.details = {"Its calls wait meanwhile. A no refuses them until you run `sorvane proxy resume`."};
    context.withdrawn = stop;
    const std::optional<bool> goOn = approver_->ask(promptOf(next.question), context);
    if (goOn) next.answer(*goOn);
  }
}

}  // namespace sorvane::app
