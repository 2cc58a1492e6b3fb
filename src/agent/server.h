#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "agent/approvals.h"
#include "agent/connection.h"
#include "agent/endpoint.h"
#include "agent/endpoint_watch.h"
#include "agent/grant_book.h"
#include "agent/handlers.h"
#include "agent/protocol.h"
#include "agent/request_socket.h"
#include "base/files.h"
#include "base/mutex.h"
#include "crypto/key.h"

namespace sorvane::agent {

/// Who hands a request to AgentServer::handle.
struct SocketCaller {
  int socket = -1;  ///< watched while the request waits, so that a client that is gone withdraws it
  pid_t peer = 0;   ///< 0 when the system does not say
};
struct ApplicationAsController {};
struct ApplicationForGrant {
  std::string id;
};
using RequestCaller = std::variant<SocketCaller, ApplicationAsController, ApplicationForGrant>;

/// AgentServer owns the agent endpoint: it listens, authenticates each request by its token, has the owner asked where
/// that is due, and answers (docs/agent-protocol.md).
///
///   stopped --start--> running --stop--> stopped
///
/// Every start and every stop begins a new generation; what belongs to an older one does nothing any more. Threads: one
/// that accepts per generation, one per connection, one that watches waiting clients, and one that watches the
/// endpoint's files. All functions may be called from any thread, `stop` and `start` also from a request's own.
class AgentServer {
 public:
  struct Settings {
    std::filesystem::path supportFolder;
    /// How often the endpoint's files are looked at; zero: never.
    std::chrono::milliseconds watchEvery = kWatchEvery;
    /// Until `serveAgents` agents are told that there is no vault; the owner's own command line is served. For a vault
    /// whose lock was reset.
    bool agentsHeldBack = false;
  };
  struct Ports {
    base::Files& files;
    Handlers::Ports handlers;
    Approvals::Ports approvals;
  };
  AgentServer(Settings settings, Ports ports);
  /// Stops, and waits until every connection is answered or dropped.
  ~AgentServer();
  AgentServer(const AgentServer&) = delete;
  AgentServer& operator=(const AgentServer&) = delete;

  /// Opens the endpoint; a failure is written to standard error and leaves the server stopped. True when it runs.
  bool start();
  /// Closes the endpoint, withdraws every question and ends every command of a request.
  void stop();
  bool isRunning() const;
  /// Writes "agent.json" again. Does nothing while stopped.
  void republish();
  /// Agents that were held back are served from now on.
  void serveAgents() { agentsHeldBack_ = false; }

  /// Refuses requests as a stopped server does, ends what a stop ends, waits until no request but the caller's own is
  /// in flight, and calls `work` then; afterwards the endpoint is opened anew, unless the server was stopped meanwhile.
  /// `work` was not called when requests are still in flight after `patience`, whose sessions, commands and questions
  /// were ended all the same, or when the server does not run.
  enum class Alone { done, stillBusy, notRunning };
  Alone alone(std::chrono::milliseconds patience, const std::function<void()>& work);

  /// The single entry of every request.
  AgentResponse handle(std::string_view bytes, const RequestCaller& caller);

  /// Blocks until no request is in flight. A request that waits itself passes `everyoneElse`.
  enum class Waiting { everyone, everyoneElse };
  void waitUntilIdle(Waiting waiting);
  /// The same for a time; false when requests are still in flight then.
  bool waitUntilIdle(Waiting waiting, std::chrono::milliseconds atMost);

 private:
  void observeSessions();
  std::optional<std::string> open() REQUIRES(lifecycle_);
  void close() REQUIRES(lifecycle_);
  /// Refuses requests from now on and ends what they began.
  void withdraw() REQUIRES(lifecycle_);
  void resume();
  AgentInfo info() const;
  base::SecretText answer(const ReceivedRequest& received, const RequestPeer& peer);
  /// What a request takes along of the generation that it came in.
  struct Entered {
    std::int64_t generation;
    std::shared_ptr<const crypto::SymmetricKey> clipboardKey;
  };
  std::optional<Entered> enter();
  void leave();
  std::variant<Caller, AgentResponse> authenticate(std::string_view token, const RequestCaller& caller);
  std::optional<std::string> checkEndpoint();

  // Constant after construction, or synchronised by themselves.
  const Settings settings_;
  const std::filesystem::path socketPath_;
  GrantBook& grants_;
  TaskSessions& sessions_;
  KeyEnvFiles& keyFiles_;
  proxy::LocalProxyBroker* const localProxy_;
  Handlers handlers_;
  Approvals approvals_;
  HangupWatch hangups_;
  RequestSocket requests_;
  std::atomic<bool> agentsHeldBack_;

  // Held across opening and closing, so that they do not interleave. Never taken by a request that is not itself
  // starting or stopping the server.
  base::Mutex lifecycle_;
  PublishedFile published_ GUARDED_BY(lifecycle_);
  SocketIdentity publishedSocket_ GUARDED_BY(lifecycle_);
  bool wanted_ GUARDED_BY(lifecycle_) = false;
  bool paused_ GUARDED_BY(lifecycle_) = false;  ///< refuses requests, but still accepts connections

  std::vector<TaskSessions::ObserverToken> sessionObservers_;

  // Guarded. A leaf: nothing is called while it is held.
  mutable base::Mutex mutex_;
  bool running_ GUARDED_BY(mutex_) = false;
  std::int64_t generation_ GUARDED_BY(mutex_) = 0;
  base::SecretText token_ GUARDED_BY(mutex_);
  std::string controllerIdentity_ GUARDED_BY(mutex_);
  std::shared_ptr<const crypto::SymmetricKey> clipboardFingerprintKey_ GUARDED_BY(mutex_);  ///< new each start
  std::size_t activeRequests_ GUARDED_BY(mutex_) = 0;
  std::size_t waitingRequests_ GUARDED_BY(mutex_) = 0;
  base::Condition requestLeft_;

  // The last member: it is stopped and joined before the others go.
  std::optional<EndpointWatch> endpointWatch_;
};

}  // namespace sorvane::agent
