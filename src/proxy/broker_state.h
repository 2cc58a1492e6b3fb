#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/deadline_timer.h"
#include "base/mutex.h"
#include "proxy/broker.h"
#include "proxy/text_key.h"

namespace sorvane::proxy {

/// What a request gets when it asks for that much.
struct GrantedLimits {
  const ProxyAsk& ask;
  const std::map<ProxyProvider, ProxyCredential>& credentials;
  base::Date now, until;
};
/// Throws ProxyAskError when a named model is allowed for none of the providers.
ProxyLimits limitsFor(const GrantedLimits& granted, const ProxyDefaultLimits& defaults);
/// nullopt when a grant may be asked for.
std::optional<ProxyAskRefusal> refusalOf(const ProxyAsk& ask, const ProxyDefaultLimits& defaults);

/// LocalProxyBroker::State is what the broker keeps about the grants it made, beside the registry and the meter.
struct LocalProxyBroker::State {
  explicit State(Ports given);

  struct Live {
    std::string caller, environmentName, poolKey;
    std::optional<std::string> runId;
  };
  struct Run {
    std::string caller, poolKey;
    std::set<std::string, std::less<>> grants;
    std::optional<std::uint64_t> watch;  ///< of the helper's process; without one the run ends when it is idle
    base::Instant begun{};
  };
  /// How callbacks that may come late reach the state: `state` is null once the broker is gone.
  struct Gate {
    base::Mutex mutex;
    State* state GUARDED_BY(mutex) = nullptr;
  };

  IssuedProxyGrant issue(NewProxyGrant&& made, const std::string& poolKey);
  /// Throws ProxyUnavailable when the grant must not begin after all.
  void admit(const ProxyGrant& grant, std::uint64_t sinceGeneration);
  bool isServed(const ProxyGrant& grant) const REQUIRES(mutex);
  /// Starts or stops the server as the protected keys want it now.
  void converge();

  void endLive(const std::function<bool(const Live&)>& ends);
  void watchRun(const std::string& runId, pid_t helper);
  void endRunOf(std::string_view runId);
  /// Forgets a grant that ended; returns the watch of its run when that was the run's last.
  std::optional<std::uint64_t> drop(std::string_view lookupId);
  /// Ends what is over by time and sets the timer anew.
  void sweep();
  /// Idle runs that are over, and when the next one may be.
  std::pair<std::vector<std::string>, std::optional<base::Instant>> idleRuns() const;
  void arm();

  /// nullopt when the grant is over.
  std::optional<VelocityQuestion> questionAbout(std::string_view lookupId, Micros charged) const;
  ProxyGrantSummary summaryOf(const ProxyGrant& grant) const;

  // Constant after construction.
  const Ports ports;
  const std::shared_ptr<Gate> gate = std::make_shared<Gate>();
  // In place of a serial queue: server.start and server.stop run one at a time, with nothing else held.
  base::Mutex serving;
  // Held over finding the next deadline and setting the timer to it, so that an older one never wins.
  base::Mutex arming;
  // Guarded. A leaf.
  mutable base::Mutex mutex;
  TextMap<Live> live GUARDED_BY(mutex);
  TextMap<Run> runs GUARDED_BY(mutex);
  std::map<std::string, ProxyProvider> served GUARDED_BY(mutex);
  std::uint64_t generation GUARDED_BY(mutex) = 0;  ///< changes with every stop
  std::int64_t velocityCents GUARDED_BY(mutex) = 0;
  // The last member: its thread is joined before the others go.
  base::DeadlineTimer timer;
};

}  // namespace sorvane::proxy
