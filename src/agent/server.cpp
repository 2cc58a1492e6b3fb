#include "agent/server.h"

#include "agent/grants.h"
#include "agent/server_request.h"
#include "base/codec.h"
#include "base/diagnostics.h"
#include "base/ids.h"
#include "base/support_folder.h"
#include "crypto/digest.h"

namespace sorvane::agent {
namespace {

constexpr std::string_view kNotRunning = "vault unavailable; retry after unlocking or restoring";
constexpr std::string_view kUnauthorized =
    "sorvane does not recognize this agent connection, so nothing was shared. Reconnect the agent in Settings > Agents "
    "(on Linux: run sorvane, then Agent connections), then restart it.";
constexpr std::string_view kBusy =
    "sorvane is handling as many requests as it can. Nothing was shared. Try again in a moment.";
constexpr std::string_view kConnectFirst = "Connect this agent before starting its task session.";

Caller callerOf(const ClientGrant& grant) {
  Caller caller;
  caller.kind = Caller::Kind::grant;
  caller.label = grant.label;
  caller.identity = grant.tokenHash;
  caller.scope = grant.environment;
  caller.allowReveal = grant.allowReveal;
  return caller;
}

}  // namespace

AgentServer::AgentServer(Settings settings, Ports ports)
    : settings_(std::move(settings)),
      socketPath_(settings_.supportFolder / base::kSocketName),
      grants_(ports.handlers.grants),
      sessions_(ports.handlers.sessions),
      keyFiles_(ports.handlers.keyFiles),
      localProxy_(ports.handlers.localProxy),
      handlers_(std::move(ports.handlers)),
      approvals_(std::move(ports.approvals)),
      requests_(
          "agent", [this](const ReceivedRequest& received, const RequestPeer& peer) { return answer(received, peer); },
          [] { return encodeResponse(AgentResponse::refused(std::string(kBusy))); }),
      agentsHeldBack_(settings_.agentsHeldBack),
      published_(ports.files, settings_.supportFolder / base::kEndpointName) {
  observeSessions();
  // Sessions do not outlive the application, and their files must not.
  keyFiles_.removeAll();
  if (settings_.watchEvery > std::chrono::milliseconds::zero()) {
    endpointWatch_.emplace("agent", settings_.supportFolder, settings_.watchEvery, [this] { return checkEndpoint(); });
  }
}

void AgentServer::observeSessions() {
  sessionObservers_.push_back(sessions_.observeEnds([this](const std::vector<TaskSessionInfo>& ended) {
    for (const TaskSessionInfo& session : ended) {
      if (session.proxyLookupId) localProxy_->end(*session.proxyLookupId);
    }
    keyFiles_.sessionsEnded(ended);
  }));
  if (localProxy_ == nullptr) return;
  // The stand-ins of commands end with the access that they were made for, too.
  sessionObservers_.push_back(sessions_.observeRevocations([this](const vault::Revocation& revocation) {
    const auto* const some = std::get_if<vault::RevokeEnvironments>(&revocation);
    return some != nullptr ? localProxy_->endEnvironments(some->names) : localProxy_->endAll();
  }));
  sessionObservers_.push_back(
      sessions_.observeOwnerEnds([this](const std::string& owner) { localProxy_->endCaller(owner); }));
}

AgentServer::~AgentServer() {
  endpointWatch_.reset();
  stop();
  requests_.drain();
  waitUntilIdle(Waiting::everyone);
  for (const auto& token : sessionObservers_) sessions_.stopObserving(token);
}

bool AgentServer::start() {
  const base::Lock lifecycle(lifecycle_);
  wanted_ = true;
  if (isRunning() || paused_) return true;
  const auto failure = open();
  if (failure) {
    base::diagnose("agent", *failure);
    wanted_ = false;
  }
  return !failure;
}

void AgentServer::stop() {
  const base::Lock lifecycle(lifecycle_);
  wanted_ = false;
  if (isRunning() || paused_) close();
}

AgentServer::Alone AgentServer::alone(std::chrono::milliseconds patience, const std::function<void()>& work) {
  {
    const base::Lock lifecycle(lifecycle_);
    if (!isRunning() || paused_) return Alone::notRunning;
    paused_ = true;
    withdraw();
  }
  struct Resume {
    AgentServer& server;
    ~Resume() { server.resume(); }
  } const resuming{*this};
  if (!waitUntilIdle(Waiting::everyoneElse, patience)) return Alone::stillBusy;
  work();
  return Alone::done;
}

void AgentServer::resume() {
  const base::Lock lifecycle(lifecycle_);
  if (!paused_) return;  // it was stopped
  close();
  const auto failure = wanted_ ? open() : std::nullopt;
  if (failure) base::diagnose("agent", *failure);
}

bool AgentServer::isRunning() const {
  const base::Lock lock(mutex_);
  return running_;
}

std::optional<std::string> AgentServer::open() {
  Listener listener = openListener(socketPath_);
  if (listener.failure) return listener.failure;
  base::SecretText token(base::randomUuid());
  std::string identity = crypto::sha256Hex(token.bytes());
  auto clipboardKey = std::make_shared<const crypto::SymmetricKey>(crypto::SymmetricKey::random());
  std::int64_t generation = 0;
  {
    const base::Lock lock(mutex_);
    generation = ++generation_;
    running_ = true;
    token_ = std::move(token);
    controllerIdentity_ = std::move(identity);
    clipboardFingerprintKey_ = std::move(clipboardKey);
  }
  approvals_.setGeneration(generation);
  publishedSocket_ = listener.identity;
  requests_.listen(std::move(listener.socket), " (gen " + std::to_string(generation) + ")");
  if (published_.publish(info())) return std::nullopt;
  close();
  return "could not publish endpoint";
}

void AgentServer::withdraw() {
  {
    const base::Lock lock(mutex_);
    running_ = false;
    ++generation_;
    token_ = {};
    controllerIdentity_.clear();
  }
  approvals_.setGeneration(std::nullopt);
  hangups_.withdrawAll();
  sessions_.endAll();
  if (localProxy_ != nullptr) localProxy_->endAll();
}

void AgentServer::close() {
  withdraw();
  paused_ = false;
  requests_.close();
  published_.withdraw();
  std::error_code ignored;
  std::filesystem::remove(socketPath_, ignored);
  keyFiles_.removeAll();
}

AgentInfo AgentServer::info() const {
  AgentInfo info;
  info.socketPath = socketPath_.string();
  info.capabilities.emplace(kCapabilities.begin(), kCapabilities.end());
  if (localProxy_ != nullptr && localProxy_->port()) info.capabilities->emplace_back(kLocalProxyCapability);
  const base::Lock lock(mutex_);
  info.token = token_.clone();
  return info;
}

void AgentServer::republish() {
  const base::Lock lifecycle(lifecycle_);
  if (isRunning() && !published_.publish(info())) base::diagnose("agent", "could not publish endpoint");
}

std::optional<AgentServer::Entered> AgentServer::enter() {
  const base::Lock lock(mutex_);
  if (!running_) return std::nullopt;
  ++activeRequests_;
  return Entered{generation_, clipboardFingerprintKey_};
}

void AgentServer::leave() {
  const base::Lock lock(mutex_);
  --activeRequests_;
  requestLeft_.notify_all();
}

void AgentServer::waitUntilIdle(Waiting waiting) {
  while (!waitUntilIdle(waiting, std::chrono::hours(1))) {
  }
}

bool AgentServer::waitUntilIdle(Waiting waiting, std::chrono::milliseconds atMost) {
  const auto until = std::chrono::steady_clock::now() + atMost;
  base::Lock lock(mutex_);
  // Requests that wait themselves do not wait for one another.
  const std::size_t self = waiting == Waiting::everyoneElse ? 1 : 0;
  waitingRequests_ += self;
  requestLeft_.notify_all();
  while (activeRequests_ > waitingRequests_) {
    if (requestLeft_.wait_until(lock.mutex(), until) == std::cv_status::timeout) break;
  }
  const bool isIdle = activeRequests_ <= waitingRequests_;
  waitingRequests_ -= self;
  return isIdle;
}

base::SecretText AgentServer::answer(const ReceivedRequest& received, const RequestPeer& peer) {
  if (received.tooLarge) return encodeResponse(AgentResponse::refused("request too large"));
  return encodeResponse(handle(received.bytes.view(), SocketCaller{peer.socket, peer.pid}));
}

AgentResponse AgentServer::handle(std::string_view bytes, const RequestCaller& caller) {
  const auto entered = enter();
  if (!entered) return AgentResponse::refused(std::string(kNotRunning));
  struct Leave {
    AgentServer& server;
    ~Leave() { server.leave(); }
  } const leaving{*this};

  auto request = decodeRequest(bytes);
  if (!request) return AgentResponse::refused("bad request");
  auto authenticated = authenticate(request->token.view(), caller);
  if (auto* refusal = std::get_if<AgentResponse>(&authenticated)) return std::move(*refusal);
  RequestSetting setting{approvals_, hangups_, grants_, entered->generation, -1, 0, entered->clipboardKey, bytes};
  if (const auto* socket = std::get_if<SocketCaller>(&caller)) {
    setting.socket = socket->socket;
    setting.peer = socket->peer;
  }
  ServerRequest call(std::move(*request), std::move(std::get<Caller>(authenticated)), setting);
  AgentResponse response = perform(handlers_, call);
  // A denial that comes of a stop says so: the owner denied nothing.
  if (response.error == kApprovalDenied && !approvals_.isCurrent(entered->generation)) {
    return AgentResponse::refused(std::string(kNotRunning));
  }
  return response;
}

std::variant<Caller, AgentResponse> AgentServer::authenticate(std::string_view token, const RequestCaller& caller) {
  const bool bySocket = std::holds_alternative<SocketCaller>(caller);
  {
    const base::Lock lock(mutex_);
    if (!bySocket || (!token_.empty() && token_.sameAs(token))) {
      Caller controller;
      controller.identity = controllerIdentity_;
      controller.inApplication = !bySocket;
      if (bySocket || std::holds_alternative<ApplicationAsController>(caller)) return controller;
    }
  }
  if (agentsHeldBack_) return AgentResponse::refused(std::string(kNotRunning));
  const auto grants = grants_.current();
  if (const auto* forGrant = std::get_if<ApplicationForGrant>(&caller)) {
    for (const ClientGrant& grant : *grants) {
      if (grant.id != forGrant->id) continue;
      Caller found = callerOf(grant);
      found.inApplication = true;
      return found;
    }
    return AgentResponse::refused(std::string(kConnectFirst));
  }
  const ClientGrant* const grant = findByTokenHash(*grants, crypto::sha256Hex(base::bytesOf(token)));
  if (grant == nullptr) return AgentResponse::refused(std::string(kUnauthorized), "unauthorized");
  return callerOf(*grant);
}

}  // namespace sorvane::agent
