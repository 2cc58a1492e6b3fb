#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "base/clock.h"
#include "base/error.h"
#include "proxy/grants.h"
#include "proxy/meter.h"
#include "proxy/options.h"
#include "proxy/process_watch.h"
#include "proxy/proxy_serving.h"
#include "proxy/velocity_stop.h"

namespace sorvane::proxy {

/// What a request may name about its grant.
struct ProxyAsk {
  std::optional<std::int64_t> budgetCents;
  std::optional<std::vector<std::string>> models;
};
/// Why a request gets no grant: a code for programs and a sentence for people. The owner was not asked.
struct ProxyAskRefusal {
  std::string code, message;
};
/// Reads the payload's "proxy_budget_cents" and "proxy_models" (a JSON array as text).
std::variant<ProxyAsk, ProxyAskRefusal> proxyAskOf(const std::string* budgetText, const std::string* modelsText);

/// Who watches over a command run that draws on a grant.
struct ProxyRunWatch {
  /// The helper program's process; 0 when it cannot be watched, and the run then ends after kIdleRun without a call.
  pid_t helper = 0;
};
inline constexpr std::chrono::minutes kIdleRun{10};

struct NewProxyGrant {
  std::string owner;   ///< key under which the grant is ended: "session " or "run " and an id
  std::string caller;  ///< the identity of who asked, for usageOf
  std::optional<std::string> taskSessionId, runId;
  std::string environmentId, environmentName, client;
  std::map<ProxyProvider, ProxyCredential> credentials;
  ProxyAsk ask;
  base::Date until;  ///< the session's or the run's own end
  std::function<void(std::string_view action)> audit;
};

/// A stand-in as it is handed out, once.
struct IssuedProxyGrant {
  std::string lookupId;
  base::SecretText token;
  base::Date expiresAt;
};

struct ProxyGrantSummary {
  std::string display;  ///< "qzt_local_" and the lookup id
  std::vector<ProxyProvider> providers;
  std::int64_t spentCents = 0, budgetCents = 0, calls = 0;
  base::Date expiresAt;
};

/// What the grants of one caller have spent together, over their pools.
struct ProxyCallerUsage {
  Micros spentMicros = 0, budgetMicros = 0;
  std::int64_t calls = 0;
};

/// A live grant as the owner's status shows it.
struct ProxyGrantStatus {
  ProxyGrantSummary summary;
  std::string client, environmentName;
  std::optional<std::string> taskSessionId, runId;
  bool paused = false;  ///< by the velocity stop
};

/// A grant that is charged faster than the owner's limit, and paused until there is an answer.
struct VelocityQuestion {
  std::string lookupId, client, environmentName;
  std::int64_t chargedCents = 0;  ///< within the last minute
  std::int64_t limitCents = 0;    ///< a minute
};

/// LocalProxyBroker owns the proxy: it mints grants, watches over their ends, and runs the server while it is wanted.
/// Any thread; calls no port while it holds its lock.
class LocalProxyBroker {
 public:
  /// What the broker works on; all outlive it. Whoever composes gives the meter to the forwarder and the grants to the
  /// server, and registers the server's `cut` with the grants before the broker is made, so that it runs first.
  struct Ports {
    const base::Clock& clock;
    LocalProxyGrants& grants;
    VelocityStop& meter;
    ProxyServing& server;
    ProcessWatch& processes;
    /// The owner's settings as they stand now.
    std::function<ProxyOptions()> options;
    /// Asks whether a paused grant may go on. Must not block; the answer may come on any thread, also after the broker
    /// is gone. Without it a paused grant waits for `resume`.
    std::function<void(const VelocityQuestion& question, std::function<void(bool goOn)> answer)> askVelocity;
  };
  explicit LocalProxyBroker(Ports ports);
  /// Stops.
  ~LocalProxyBroker();
  LocalProxyBroker(const LocalProxyBroker&) = delete;
  LocalProxyBroker& operator=(const LocalProxyBroker&) = delete;

  /// Runs the server while a key is protected. Ends every grant whose provider is no longer served or whose key is no
  /// longer among the protected ones (`protectedSecrets`: secret id to provider). Called after every change of the
  /// protected keys or of the settings. A server that cannot start is said on standard error, and there is no port
  /// then.
  void serve(const std::map<std::string, ProxyProvider>& protectedSecrets);
  /// Ends every grant and the server; `serve` begins anew.
  void stop();
  /// The port of the running server; nullopt while it does not run.
  std::optional<std::uint16_t> port() const;

  std::int64_t longestSessionSeconds() const;
  /// What a grant of this asking may spend, in cents.
  std::int64_t budgetFor(const ProxyAsk& ask) const;
  /// Decides before the owner is asked; nullopt when the grant may be asked for.
  std::optional<ProxyAskRefusal> refusedAsk(const ProxyAsk& ask) const;
  /// Throws ProxyUnavailable when the server does not run or a key is not among the protected ones, ProxyAskError when
  /// the asking is refused by now or names a model that none of the grant's providers may use, and what `audit` throws.
  IssuedProxyGrant issue(NewProxyGrant grant);
  /// A grant for a command run: the run ends when the helper's process is gone, after kIdleRun without a call when that
  /// cannot be watched, at `until`, or with endRun. Grants of one run share one pool. When the helper is gone already,
  /// the grant is over when this returns.
  IssuedProxyGrant issueForRun(NewProxyGrant grant, const ProxyRunWatch& watch);
  /// False when the run is unknown, over, or another caller's.
  bool endRun(std::string_view runId, std::string_view caller);

  bool isLive(std::string_view lookupId) const;
  void end(std::string_view lookupId);
  void endOwner(std::string_view owner);
  void endCarrying(std::string_view secretId);
  void endCaller(std::string_view caller);
  /// Ends the grants made for environments of these names.
  void endEnvironments(const std::set<std::string>& names);
  /// Ends every grant; the server goes on.
  void endAll();
  /// A grant that the velocity stop paused goes on.
  void resume(std::string_view lookupId);

  /// Of a live grant. When the meter does not know it, the budget is that of its own limits and nothing is spent.
  std::optional<ProxyGrantSummary> summaryOf(std::string_view lookupId) const;
  ProxyCallerUsage usageOf(std::string_view caller) const;
  std::vector<ProxyGrantStatus> statuses() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// A grant is not made for what was asked for, though the owner may have been asked. `code` is ProxyAskRefusal's.
class ProxyAskError : public base::Error {
 public:
  explicit ProxyAskError(std::string code);
  const std::string& code() const { return code_; }

 private:
  std::string code_;
};

/// The proxy does not run, so there is nothing to stand in.
class ProxyUnavailable : public base::Error {
 public:
  ProxyUnavailable();
};

}  // namespace sorvane::proxy
