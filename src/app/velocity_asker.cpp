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

void VelocityAsker::goBy(std::function<agent::Approver()> whoseYesCounts) {
  const base::Lock lock(mutex_);
  whoseYesCounts_ = std::move(whoseYesCounts);
}

void VelocityAsker::stop() {
  std::jthread thread;
  {
    const base::Lock lock(mutex_);
    whoseYesCounts_ = {};
    waiting_.clear();
    thread.swap(thread_);
  }
  // Without the lock, which the thread takes; the destructor ends and joins it.
}

std::optional<agent::Approver> VelocityAsker::whoseYesCounts() {
  std::function<agent::Approver()> ask;
  {
    const base::Lock lock(mutex_);
    ask = whoseYesCounts_;
  }
  if (!ask || ports_.approver == nullptr) return std::nullopt;
  const agent::Approver whose = ask();
  return ports_.approver->canAsk(whose) ? std::optional(whose) : std::nullopt;
}

void VelocityAsker::ask(const proxy::VelocityQuestion& question, std::function<void(bool goOn)> answer) {
  const bool isAsked = whoseYesCounts().has_value();
  ports_.notifier.notify("sorvane · agent calls paused",
                         question.client + " spent " + proxy::dollarsOf(question.chargedCents) +
                             " within a minute. Its calls wait for " +
                             (isAsked ? "your answer, or for `sorvane proxy resume`." : "`sorvane proxy resume`."));
  if (!isAsked) return;
  const base::Lock lock(mutex_);
  waiting_.push_back({question, std::move(answer)});
  changed_.notify_all();
  if (!thread_.joinable()) thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

void VelocityAsker::withdraw(std::string_view lookupId) {
  std::optional<std::stop_source> standing;
  {
    const base::Lock lock(mutex_);
    std::erase_if(waiting_, [&](const Waiting& waiting) { return waiting.question.lookupId == lookupId; });
    if (standing_ && standing_->lookupId == lookupId) standing = standing_->withdrawn;
  }
  // Without the lock: it runs what whoever asks does then.
  if (standing) standing->request_stop();
}

void VelocityAsker::run(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    Waiting next;
    std::stop_source withdrawn;
    {
      base::Lock lock(mutex_);
      changed_.wait(lock.mutex(), stop, [this]() REQUIRES(mutex_) { return !waiting_.empty(); });
      if (waiting_.empty()) return;
      next = std::move(waiting_.front());
      waiting_.pop_front();
      standing_ = {next.question.lookupId, withdrawn};
    }
    const std::stop_callback ending(stop, [&] { withdrawn.request_stop(); });
    // A grant that ended before its question stood was not there to be withdrawn.
    if (ports_.isLive(next.question.lookupId)) put(next, withdrawn);
    const base::Lock lock(mutex_);
    standing_.reset();
  }
}

void VelocityAsker::put(const Waiting& next, const std::stop_source& withdrawn) {
  const auto asked = whoseYesCounts();
  if (!asked) return;
  agent::ApprovalContext context;
  context.label = next.question.client;
  context.callerIdentity = next.question.lookupId;
  context.details = {"Its calls wait meanwhile. A no refuses them until you run `sorvane proxy resume`."};
  context.whoseYesCounts = *asked;
  context.withdrawn = withdrawn.get_token();
  const std::optional<bool> goOn = ports_.approver->ask(promptOf(next.question), context);
  // A no counts from anywhere; a yes only by the policy as it is when it comes.
  const auto now = whoseYesCounts();
  if (goOn && (!*goOn || now == asked || now == agent::Approver::any)) next.answer(*goOn);
}

}  // namespace sorvane::app
