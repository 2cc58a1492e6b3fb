#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "base/descriptor.h"
#include "base/error.h"
#include "base/mutex.h"
#include "proxy/body_budget.h"
#include "proxy/connection.h"
#include "proxy/failed_token_throttle.h"
#include "proxy/forward_request.h"
#include "proxy/grants.h"
#include "proxy/peer_owner.h"
#include "proxy/proxy_serving.h"
#include "proxy/server_workers.h"

namespace sorvane::proxy {

/// The proxy cannot listen.
class ProxyServerError : public base::Error {
 public:
  using Error::Error;
};

/// Who is at the other end of a connection.
struct ProxyPeer {
  TcpEnd end;
  std::optional<uid_t> uid;  ///< absent when the system does not tell, or was not asked
};

/// LocalProxyServer serves the proxy's routes on the loopback interface: one request a connection, read and checked
/// here, refused here, or handed to the forwarder (docs/proxy.md). Any thread may call any function; `stop` not from a
/// connection's own.
///
///   stopped --start--> listening --stop, or the listener breaks--> stopped
///
///   connection: head -> checks -> body -> forwarding -> answered -> closed
///                 \________\________\_____> refused -> draining -> closed      cut: from anywhere to closed
class LocalProxyServer final : public ProxyServing {
 public:
  struct Configuration {
    int maxConnections = 64;
    double headerReadTimeout = 10.0;  ///< seconds, from the connection's start
    double bodyReadTimeout = 60.0;
    std::int64_t globalBodyBudgetBytes = 67'108'864;
    double failedTokenDelay = 1.0;
    int failedTokenThrottleCount = 20;
    bool checkPeerUID = true;
    std::function<bool(const ProxyPeer&)> peerCheck = {};  ///< asked beside the user id, when given
    std::int64_t drainLimitBytes = 262'144;
    double drainSeconds = 1.0;
    double writeStallTimeout = 60.0;  ///< a client that reads nothing for so long is gone
    int maxBusyAnswers = 8;           ///< connections beyond maxConnections that are being told so at once
  };
  /// What the server uses; all outlive it.
  struct Ports {
    const ProxyGrantStore& grants;
    ProxyForwarding& forwarder;
    PeerOwners& owners;
    const base::Clock& clock;
  };
  struct Counters {
    std::int64_t bodyBytesRead = 0;
    std::int64_t drainedBytes = 0;
  };

  LocalProxyServer(Configuration configuration, Ports ports);
  /// Stops.
  ~LocalProxyServer() override;
  LocalProxyServer(const LocalProxyServer&) = delete;
  LocalProxyServer& operator=(const LocalProxyServer&) = delete;

  /// Throws ProxyServerError. Does nothing but tell the port when it listens already.
  std::uint16_t start() override;
  void stop() override;
  std::optional<std::uint16_t> port() const override;

  /// The grant ended: its connections are closed at once and their calls told to end. Does not wait for them.
  void cut(std::string_view lookupId);

  Counters counters() const { return {bodyBytesReadTotal_, drainedBytesTotal_}; }

 private:
  friend class ProxyExchange;
  struct Listening;

  /// Throws ProxyServerError when the system does not tell whose a connection is; no client would be served.
  void checkOwnersAreTold();
  /// Closes every connection and waits for the threads.
  void end() REQUIRES(lifecycle_);
  void publish(std::optional<std::uint16_t> port);
  base::Descriptor next(const Listening& listening);
  void serve(base::Descriptor socket);
  bool isWelcome(int socket) const;
  /// nullptr when the server stops. `busy` is set when the connection is one too many.
  std::shared_ptr<ProxyConnection> admit(base::Descriptor socket, bool& busy);
  void leave(const ProxyConnection& connection, bool busy);
  std::vector<std::shared_ptr<ProxyConnection>> connections(std::optional<std::string_view> lookupId);

  // Constant after construction.
  const Configuration configuration_;
  const Ports ports_;
  // Own synchronisation.
  ProxyFailedTokenThrottle throttle_;
  ProxyBodyBudget bodyBudget_;
  std::atomic<std::int64_t> bodyBytesReadTotal_{0}, drainedBytesTotal_{0};
  // Serialises start and stop; held while threads are waited for.
  base::Mutex lifecycle_;
  std::unique_ptr<Listening> running_ GUARDED_BY(lifecycle_);
  // Guarded. Taken before a connection's lock; nothing else is called while it is held.
  mutable base::Mutex lock_;
  std::map<int, std::shared_ptr<ProxyConnection>> connections_ GUARDED_BY(lock_);
  int nextConnectionId_ GUARDED_BY(lock_) = 1;
  int served_ GUARDED_BY(lock_) = 0;                          ///< connections without those that are told "busy"
  std::optional<std::uint16_t> boundPort_ GUARDED_BY(lock_);  ///< while it listens
};

}  // namespace sorvane::proxy
