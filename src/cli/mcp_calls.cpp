#include <algorithm>
#include <system_error>

#include "agent/client.h"
#include "base/ids.h"
#include "cli/mcp_server.h"

namespace sorvane::cli::mcp {

// The calls of McpServer: their threads, their time, and how they end.

namespace {

using std::chrono::steady_clock;

constexpr char kTooManyCalls[] =
    "Sixteen calls wait for their answers already, so this one was not made and nothing was shared. Wait for one of "
    "them, or call check_pending for one that is pending.";

constexpr char kUnforeseen[] = "sorvane met something that it was not made for. Nothing was shared by it. Try again.";

}  // namespace

McpServer::~McpServer() {
  std::vector<std::stop_source> withdrawals;
  {
    const base::Lock lock(mutex_);
    ending_ = true;
    for (Call& call : calls_) {
      call.waiter.reset();
      call.unwanted = true;
      withdrawals.push_back(call.withdrawal);
    }
    sooner_.notify_all();
  }
  for (std::stop_source& withdrawal : withdrawals) withdrawal.request_stop();
  if (clock_.joinable()) clock_.join();
  base::Lock lock(mutex_);
  while (threads_ > 0) ended_.wait(lock.mutex());
}

bool McpServer::idInUse(const base::Json& id) {
  const base::Lock lock(mutex_);
  return std::any_of(calls_.begin(), calls_.end(),
                     [&id](const Call& call) { return call.waiter && call.waiter->requestId == id; });
}

void McpServer::makeRoom() {
  if (calls_.size() < settings_.maxCalls) return;
  // An answer that nobody came for gives way to a new call; the oldest stands first.
  const auto call =
      std::find_if(calls_.begin(), calls_.end(), [](const Call& known) { return known.answer.has_value(); });
  if (call != calls_.end()) calls_.erase(call);
}

std::optional<std::uint64_t> McpServer::addCall(Shape shape, const Waiter& waiter, std::stop_token& withdrawal) {
  const base::Lock lock(mutex_);
  makeRoom();
  if (calls_.size() >= settings_.maxCalls) return std::nullopt;
  Call& call = calls_.emplace_back();
  call.number = ++lastNumber_;
  call.shape = shape;
  call.waiter = waiter;
  withdrawal = call.withdrawal.get_token();
  ++threads_;
  wakeClock(waiter);
  return call.number;
}

void McpServer::startCall(const Tool& tool, agent::AgentRequest request, const Waiter& waiter) {
  std::stop_token withdrawal;
  const auto number = addCall(tool.shape, waiter, withdrawal);
  if (!number) {
    return send(toolResult(waiter, tool.shape, agent::AgentResponse::refused(kTooManyCalls, "too_many_calls")));
  }
  try {
    if (!clock_.joinable()) clock_ = std::thread([this] { keepTime(); });
    std::thread([this, number = *number, withdrawal, asked = std::move(request)]() mutable {
      runCall(number, std::move(asked), withdrawal);
    }).detach();
  } catch (const std::system_error&) {
    finish(*number, agent::AgentResponse::refused(kUnforeseen, "failed"));
    endThread();
  }
}

void McpServer::runCall(std::uint64_t number, agent::AgentRequest request, const std::stop_token& withdrawal) noexcept {
  finish(number, ask(std::move(request), withdrawal));
  endThread();
}

void McpServer::endThread() {
  const base::Lock lock(mutex_);
  --threads_;
  // Told while the lock is held: the destructor goes on only when the thread is done with the server.
  ended_.notify_all();
}

agent::AgentResponse McpServer::ask(agent::AgentRequest request, const std::stop_token& withdrawal) {
  {
    const base::Lock lock(mutex_);
    request.requestor = requestor_;
  }
  agent::stateCapabilities(request);
  try {
    return exchange_(std::move(request), withdrawal);
  } catch (const agent::ClientError& error) {
    const bool gone = error.kind() == agent::ClientError::Case::unavailable;
    return agent::AgentResponse::refused(error.sentence(), gone ? "not_running" : "bad_answer");
  } catch (const base::Error& error) {
    return agent::AgentResponse::refused(error.sentence(), "failed");
  } catch (const std::exception&) {
    return agent::AgentResponse::refused(kUnforeseen, "failed");
  }
}

void McpServer::finish(std::uint64_t number, agent::AgentResponse answer) {
  {
    const base::Lock lock(mutex_);
    const auto call =
        std::find_if(calls_.begin(), calls_.end(), [number](const Call& known) { return known.number == number; });
    if (call->waiter) enqueue(toolResult(*call->waiter, call->shape, answer));
    if (call->waiter || call->unwanted) {
      calls_.erase(call);
    } else {
      call->answer = std::move(answer);
      call->answeredAt = steady_clock::now();
    }
  }
  flush();
}

void McpServer::wakeClock(const Waiter& waiter) {
  if (std::min(waiter.nextProgress, waiter.pendingAt) < wakesAt_) sooner_.notify_all();
}

void McpServer::keepTime() {
  base::Lock lock(mutex_);
  while (!ending_) {
    wakesAt_ = dueWork(steady_clock::now());
    if (outgoing_.empty()) {
      sooner_.wait_until(lock.mutex(), wakesAt_);
      continue;
    }
    mutex_.unlock();
    flush();
    mutex_.lock();
  }
}

void McpServer::makePending(Call& call) {
  if (call.pendingId.empty()) call.pendingId = base::randomUuid();
  base::JsonWriter out = beginResult(call.waiter->requestId);
  writePending(out, call.pendingId);
  enqueue(endResult(std::move(out), call.waiter->era));
  call.waiter.reset();
}

void McpServer::tellProgress(Waiter& waiter, base::Instant now) {
  waiter.nextProgress = now + settings_.progressEvery;
  if (waiter.progressToken.is_null()) return;
  base::JsonWriter out;
  out.beginObject().field("jsonrpc", "2.0").field("method", "notifications/progress").key("params").beginObject();
  out.key("progressToken").raw(waiter.progressToken.dump());
  out.key("progress").integer(std::chrono::duration_cast<std::chrono::milliseconds>(now - waiter.since).count());
  out.field("message", "Waiting for the owner's answer where sorvane runs.").endObject().endObject();
  enqueue(out.take());
}

base::Instant McpServer::dueWork(base::Instant now) {
  base::Instant next = now + settings_.keepAnswers;
  calls_.remove_if([&](const Call& call) { return call.answer && now >= call.answeredAt + settings_.keepAnswers; });
  for (Call& call : calls_) {
    if (call.waiter && now >= call.waiter->pendingAt) makePending(call);
    if (call.waiter && now >= call.waiter->nextProgress) tellProgress(*call.waiter, now);
    if (call.waiter) next = std::min({next, call.waiter->nextProgress, call.waiter->pendingAt});
    if (call.answer) next = std::min(next, call.answeredAt + settings_.keepAnswers);
  }
  return next;
}

}  // namespace sorvane::cli::mcp
