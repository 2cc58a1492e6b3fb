#pragma once

#include <deque>
#include <map>
#include <memory>

#include "base/clock.h"
#include "base/deadline_timer.h"
#include "base/mutex.h"
#include "proxy/curl_shared.h"
#include "proxy/transport.h"

namespace sorvane::proxy {

class CurlLine;

/// CurlTransport is the transport over libcurl: HTTP/1.1 and HTTP/2 over verified TLS, with a pool of connections for
/// each provider. The connection that came back last goes out first, so that the others grow old and are closed.
class CurlTransport final : public ProxyTransport {
 public:
  /// Providers close idle connections after a minute or more; one that is kept no longer is rarely found dead.
  static constexpr std::chrono::seconds kIdleTime{60};
  static constexpr std::size_t kMostIdle = 64;  ///< for each provider

  /// Throws AuthorityError.
  CurlTransport(const base::Clock& clock, TransportSettings settings);
  ~CurlTransport() override;
  CurlTransport(const CurlTransport&) = delete;
  CurlTransport& operator=(const CurlTransport&) = delete;

  /// For the calls that begin from now on; kept connections are closed. Throws AuthorityError and changes nothing then.
  void configure(TransportSettings settings);
  UpstreamResult send(const UpstreamRequest& request, UpstreamReceiver& receiver, const UpstreamWatch& watch) override;
  /// Connections that wait for a call.
  std::size_t idle() const;

 private:
  struct Idle {
    std::unique_ptr<CurlLine> line;
    base::Instant since;
  };
  using Pools = std::map<ProxyProvider, std::deque<Idle>>;  // the oldest first

  std::unique_ptr<CurlLine> take(ProxyProvider provider);
  void giveBack(ProxyProvider provider, std::unique_ptr<CurlLine> line);
  void closeOld();

  // Constant after construction.
  const base::Clock& clock_;
  // Guarded. A leaf: a line is made, used and closed without it.
  mutable base::Mutex mutex_;
  std::shared_ptr<const CurlShared> shared_ GUARDED_BY(mutex_);
  Pools pools_ GUARDED_BY(mutex_);
  bool armed_ GUARDED_BY(mutex_) = false;
  base::DeadlineTimer timer_;  // last: its thread ends before the rest does
};

}  // namespace sorvane::proxy
