#include <algorithm>

#include "proxy/broker_state.h"

namespace sorvane::proxy {
namespace {

/// While a grant lives, the clocks are looked at this often: the wall clock may be set past a grant's end, and a call
/// in flight tells of no moment to come back at.
constexpr std::chrono::minutes kLookAgain{1};

void takeEarlier(std::optional<base::Instant>& earliest, base::Instant other) {
  if (!earliest || other < *earliest) earliest = other;
}

}  // namespace

void LocalProxyBroker::State::watchRun(const std::string& runId, pid_t helper) {
  {
    const base::Lock lock(mutex);
    const auto run = runs.find(runId);
    if (helper <= 0 || run == runs.end() || run->second.watch) return;
  }
  // The call cannot outlive the state: whoever drops the run waits for it, and after that it uses nothing of the state.
  const auto watched = ports.processes.watch(helper, [this, runId] { endRunOf(runId); });
  if (watched.state == ProcessWatch::State::gone) endRunOf(runId);
  if (watched.state != ProcessWatch::State::watching) return;
  {
    const base::Lock lock(mutex);
    if (const auto run = runs.find(runId); run != runs.end() && !run->second.watch) {
      run->second.watch = watched.token;
      return;
    }
  }
  ports.processes.forget(watched.token);
}

void LocalProxyBroker::State::endRunOf(std::string_view runId) {
  LocalProxyGrants& grants = ports.grants;
  std::vector<std::string> ids;
  {
    const base::Lock lock(mutex);
    if (const auto run = runs.find(runId); run != runs.end())
      ids.assign(run->second.grants.begin(), run->second.grants.end());
  }
  for (const std::string& id : ids) grants.end(id);
}

std::optional<std::uint64_t> LocalProxyBroker::State::drop(std::string_view lookupId) {
  const base::Lock lock(mutex);
  const auto found = live.find(lookupId);
  if (found == live.end()) return std::nullopt;
  const std::optional<std::string> runId = std::move(found->second.runId);
  live.erase(found);
  const auto run = runId ? runs.find(*runId) : runs.end();
  if (run == runs.end()) return std::nullopt;
  run->second.grants.erase(std::string(lookupId));
  if (!run->second.grants.empty()) return std::nullopt;
  const auto watch = run->second.watch;
  runs.erase(run);
  return watch;
}

std::pair<std::vector<std::string>, std::optional<base::Instant>> LocalProxyBroker::State::idleRuns() const {
  struct Unwatched {
    std::string id, poolKey;
    base::Instant begun;
  };
  std::vector<Unwatched> unwatched;
  {
    const base::Lock lock(mutex);
    for (const auto& [id, run] : runs) {
      if (!run.watch) unwatched.push_back({id, run.poolKey, run.begun});
    }
  }
  const base::Instant now = ports.clock.instant();
  std::vector<std::string> over;
  std::optional<base::Instant> next;
  for (Unwatched& run : unwatched) {
    const ProxySpend spend = ports.meter.spendOfPool(run.poolKey).value_or(ProxySpend{});
    if (spend.inFlight > 0) continue;
    const base::Instant end = std::max(run.begun, spend.lastCall) + kIdleRun;
    if (end <= now)
      over.push_back(std::move(run.id));
    else
      takeEarlier(next, end);
  }
  return {std::move(over), next};
}

void LocalProxyBroker::State::sweep() {
  ports.grants.expire();
  for (const std::string& id : idleRuns().first) endRunOf(id);
  arm();
}

void LocalProxyBroker::State::arm() {
  const base::Lock lock(arming);
  auto next = ports.grants.nextExpiry();
  if (next) {
    const base::Instant now = ports.clock.instant();
    takeEarlier(next, now + kLookAgain);
    const auto [over, idle] = idleRuns();
    if (idle) takeEarlier(next, *idle);
    if (!over.empty()) takeEarlier(next, now);
  }
  timer.arm(next);
}

}  // namespace sorvane::proxy
