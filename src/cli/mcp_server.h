#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>

#include "base/clock.h"
#include "base/mutex.h"
#include "cli/mcp_frame.h"
#include "cli/mcp_tools.h"

namespace sorvane::cli::mcp {

/// McpServer answers the model-context-protocol, tools only, of both eras: the `initialize` handshake, and the
/// stateless one in which each request says its version. docs/mcp.md describes what a client sees.
///
/// `handle` is called from one thread; calls of tools run on threads of their own, and one more keeps the time. The
/// destructor withdraws every call and waits for its thread.
class McpServer {
 public:
  struct Settings {
    std::string version;
    Reveal reveal = Reveal::hidden;
    std::chrono::milliseconds progressEvery{10'000};
    /// Under the shortest time-out of a client that is known, 60 seconds.
    std::chrono::milliseconds pendingAfter{45'000};
    /// How long an answer waits for the client to come for it.
    std::chrono::milliseconds keepAnswers{600'000};
    std::size_t maxCalls = 16;
  };
  /// Sends one request to sorvaned and waits for its answer; throws base::Error. Called from many threads.
  using Exchange = std::function<agent::AgentResponse(agent::AgentRequest, const std::stop_token&)>;
  /// Writes one line, its end included. Never called from two threads at once.
  using Write = std::function<void(std::string_view line)>;

  McpServer(Settings settings, Exchange exchange, Write write);
  ~McpServer();
  McpServer(const McpServer&) = delete;
  McpServer& operator=(const McpServer&) = delete;

  void handle(const LineDecoder::Line& line);

 private:
  enum class Era { handshake, stateless };

  /// Who waits for a call's answer.
  struct Waiter {
    base::Json requestId;
    Era era;
    base::Json progressToken;  ///< null when the client wants no progress
    base::Instant since, nextProgress, pendingAt;
  };
  // A call is asked -> (answered while its client waits: gone) | (pendingAfter: pending) | (cancelled: unwanted).
  // A pending call gets a waiter again through check_pending.
  struct Call {
    std::uint64_t number;
    Shape shape;
    std::stop_source withdrawal;
    std::optional<Waiter> waiter;
    std::string pendingId;
    std::optional<agent::AgentResponse> answer;
    base::Instant answeredAt;
    bool unwanted = false;
  };
  using Calls = std::list<Call>;

  void answerRequest(Frame& frame);
  void initialize(const Frame& frame);
  void listTools(const Frame& frame, Era era);
  void callTool(Frame& frame, Era era);
  void checkPending(const Tool& tool, const base::Json& arguments, Waiter waiter);
  void cancel(const base::Json& params);
  void noteClient(const base::Json& info);

  void startCall(const Tool& tool, agent::AgentRequest request, const Waiter& waiter);
  std::optional<std::uint64_t> addCall(Shape shape, const Waiter& waiter, std::stop_token& withdrawal);
  void endThread() EXCLUDES(mutex_);
  void runCall(std::uint64_t number, agent::AgentRequest request, const std::stop_token& withdrawal) noexcept;
  agent::AgentResponse ask(agent::AgentRequest request, const std::stop_token& withdrawal);
  void finish(std::uint64_t number, agent::AgentResponse answer);
  bool idInUse(const base::Json& id) EXCLUDES(mutex_);

  void keepTime();
  void wakeClock(const Waiter& waiter) REQUIRES(mutex_);
  void tellProgress(Waiter& waiter, base::Instant now) REQUIRES(mutex_);
  void makePending(Call& call) REQUIRES(mutex_);
  base::Instant dueWork(base::Instant now) REQUIRES(mutex_);
  void makeRoom() REQUIRES(mutex_);

  Waiter waiterOf(const Frame& frame, Era era) const;
  void writeIdentity(base::JsonWriter& out) const;
  base::JsonWriter beginResult(const base::Json& id) const;
  base::SecretText endResult(base::JsonWriter out, Era era) const;
  base::SecretText toolResult(const Waiter& waiter, Shape shape, const agent::AgentResponse& answer) const;
  void refuse(const base::Json& id, int code, std::string_view problem, std::string_view data = {});
  void enqueue(base::SecretText line) REQUIRES(mutex_);
  void send(base::SecretText line) EXCLUDES(mutex_);
  void flush() EXCLUDES(mutex_, writing_);

  // Constant after construction.
  const Settings settings_;
  const Exchange exchange_;
  const Write write_;
  // Held while a line is written, so that lines never mix; taken before mutex_, never after it.
  base::Mutex writing_;
  // Guarded. No I/O while mutex_ is held: what is to be written is queued under it, in the order in which it was
  // decided, and written afterwards.
  base::Mutex mutex_;
  base::Condition sooner_;  ///< the clock has something to do before wakesAt_
  base::Condition ended_;   ///< threads_ went down
  base::Instant wakesAt_ GUARDED_BY(mutex_) = base::Instant::max();
  bool ending_ GUARDED_BY(mutex_) = false;
  std::deque<base::SecretText> outgoing_ GUARDED_BY(mutex_);
  Calls calls_ GUARDED_BY(mutex_);
  std::size_t threads_ GUARDED_BY(mutex_) = 0;
  std::uint64_t lastNumber_ GUARDED_BY(mutex_) = 0;
  std::string requestor_ GUARDED_BY(mutex_);
  // Started with the first call; the thread that calls `handle` owns it.
  std::thread clock_;
};

}  // namespace sorvane::cli::mcp
