#include "proxy/broker.h"

#include <algorithm>

#include "base/diagnostics.h"
#include "proxy/broker_state.h"
#include "proxy/token.h"

namespace sorvane::proxy {

ProxyUnavailable::ProxyUnavailable()
    : Error(
          "The local proxy that stands in for protected keys does not run, or no longer holds this key. Nothing was "
          "shared. Ask the user to check `sorvane proxy status`, then try again.") {}

LocalProxyBroker::State::State(Ports given) : ports(std::move(given)), timer(ports.clock, [this] { sweep(); }) {
  {
    const base::Lock lock(gate->mutex);
    gate->state = this;
  }
  ports.grants.spendFrom([&meter = ports.meter](std::string_view lookupId) {
    return meter.spendOf(lookupId).value_or(ProxySpend{}).spentMicros;
  });
  ports.grants.addHandler([gate = gate, &meter = ports.meter, &processes = ports.processes](std::string_view lookupId) {
    meter.close(lookupId);
    std::optional<std::uint64_t> watch;
    {
      const base::Lock lock(gate->mutex);
      if (gate->state != nullptr) watch = gate->state->drop(lookupId);
    }
    // Without a lock: it waits for a call that runs, which ends grants in its turn.
    if (watch) processes.forget(*watch);
  });
  ports.meter.onPause([gate = gate, &meter = ports.meter](std::string_view lookupId, Micros charged) {
    std::optional<VelocityQuestion> question;
    decltype(Ports::askVelocity) ask;
    {
      const base::Lock lock(gate->mutex);
      if (gate->state == nullptr) return;
      question = gate->state->questionAbout(lookupId, charged);
      ask = gate->state->ports.askVelocity;
    }
    if (!question || !ask) return;
    ask(*question, [gate, &meter, id = question->lookupId](bool goOn) {
      const base::Lock lock(gate->mutex);
      if (gate->state == nullptr) return;
      if (goOn)
        meter.resume(id);
      else
        meter.stop(id);
    });
  });
}

LocalProxyBroker::LocalProxyBroker(Ports ports) : state_(std::make_unique<State>(std::move(ports))) {}

LocalProxyBroker::~LocalProxyBroker() {
  stop();
  state_->timer.stop();
  state_->ports.meter.onPause({});
  const base::Lock lock(state_->gate->mutex);
  state_->gate->state = nullptr;
}

void LocalProxyBroker::serve(const std::map<std::string, ProxyProvider>& protectedSecrets) {
  const auto velocity = state_->ports.options().velocityCentsPerMinute;
  {
    const base::Lock lock(state_->mutex);
    state_->served = protectedSecrets;
    state_->velocityCents = velocity.value_or(0);
    if (protectedSecrets.empty()) ++state_->generation;
  }
  state_->ports.meter.setLimit(velocity);
  state_->converge();
  const auto carriesOther = [&](const ProxyGrant& grant) {
    return std::any_of(grant.credentials.begin(), grant.credentials.end(), [&](const auto& entry) {
      const auto found = protectedSecrets.find(entry.second.secretId);
      return found == protectedSecrets.end() || found->second != entry.first;
    });
  };
  state_->ports.grants.endWhere(carriesOther);
}

void LocalProxyBroker::stop() {
  {
    const base::Lock lock(state_->mutex);
    state_->served.clear();
    ++state_->generation;
  }
  state_->converge();
  state_->ports.grants.endAll();
}

void LocalProxyBroker::State::converge() {
  const base::Lock one(serving);
  bool wanted = false;
  {
    const base::Lock lock(mutex);
    wanted = !served.empty();
  }
  if (!wanted) return ports.server.stop();
  if (ports.server.port()) return;
  try {
    ports.server.start();
  } catch (const base::Error& error) {
    base::diagnose("proxy", "The local proxy could not start, so protected keys cannot be used. " + error.sentence());
  }
}

std::optional<std::uint16_t> LocalProxyBroker::port() const {
  return state_->ports.server.port();
}

std::int64_t LocalProxyBroker::longestSessionSeconds() const {
  return state_->ports.options().limits.longestSessionSeconds;
}

std::int64_t LocalProxyBroker::budgetFor(const ProxyAsk& ask) const {
  return ask.budgetCents ? *ask.budgetCents : state_->ports.options().limits.budgetCents;
}

std::optional<ProxyAskRefusal> LocalProxyBroker::refusedAsk(const ProxyAsk& ask) const {
  return refusalOf(ask, state_->ports.options().limits);
}

IssuedProxyGrant LocalProxyBroker::issue(NewProxyGrant grant) {
  return state_->issue(std::move(grant), "");
}

IssuedProxyGrant LocalProxyBroker::issueForRun(NewProxyGrant grant, const ProxyRunWatch& watch) {
  const std::string runId = grant.runId.value_or("");
  {
    const base::Lock lock(state_->mutex);
    const auto run = state_->runs.find(runId);
    if (runId.empty() || (run != state_->runs.end() && run->second.caller != grant.caller)) throw ProxyUnavailable();
  }
  IssuedProxyGrant issued = state_->issue(std::move(grant), "run " + runId);
  state_->watchRun(runId, watch.helper);
  state_->arm();
  return issued;
}

IssuedProxyGrant LocalProxyBroker::State::issue(NewProxyGrant&& made, const std::string& poolKey) {
  const ProxyDefaultLimits defaults = ports.options().limits;
  if (const auto refused = refusalOf(made.ask, defaults)) throw ProxyAskError(refused->code);
  std::uint64_t since = 0;
  {
    const base::Lock lock(mutex);
    since = generation;
  }
  if (!ports.server.port()) throw ProxyUnavailable();
  NewGrantEntry entry;
  entry.grant.limits = limitsFor({made.ask, made.credentials, ports.clock.now(), made.until}, defaults);
  entry.grant.taskSessionId = std::move(made.taskSessionId);
  entry.grant.runId = poolKey.empty() ? std::nullopt : made.runId;
  entry.grant.environment = std::move(made.environmentId);
  entry.description = made.client + " in " + made.environmentName;
  entry.grant.client = std::move(made.client);
  entry.grant.credentials = std::move(made.credentials);
  entry.owner = std::move(made.owner);
  entry.audit = std::move(made.audit);
  MintedGrant minted = ports.grants.issue(std::move(entry));
  const ProxyGrant& grant = *minted.grant;
  const std::string& pool = poolKey.empty() ? grant.lookupId : poolKey;
  {
    const base::Lock lock(mutex);
    live.emplace(grant.lookupId, Live{made.caller, std::move(made.environmentName), pool, grant.runId});
    if (grant.runId) {
      Run& run = runs[*grant.runId];
      if (run.grants.empty()) run = {std::move(made.caller), pool, {}, {}, ports.clock.instant()};
      run.grants.insert(grant.lookupId);
    }
  }
  ports.meter.open(grant.lookupId, pool, grant.limits);
  admit(grant, since);
  arm();
  return {grant.lookupId, std::move(minted.token), grant.limits.expiresAt};
}

bool LocalProxyBroker::State::isServed(const ProxyGrant& grant) const {
  return std::all_of(grant.credentials.begin(), grant.credentials.end(), [&](const auto& entry) REQUIRES(mutex) {
    const auto found = served.find(entry.second.secretId);
    return found != served.end() && found->second == entry.first;
  });
}

void LocalProxyBroker::State::admit(const ProxyGrant& grant, std::uint64_t sinceGeneration) {
  bool wanted = false;
  {
    const base::Lock lock(mutex);
    wanted = generation == sinceGeneration && isServed(grant);
  }
  if (!wanted) ports.grants.end(grant.lookupId);
  if (ports.grants.find(grant.lookupId)) return;
  // It ended while it began, perhaps before the meter and this knew it.
  ports.meter.close(grant.lookupId);
  if (const auto watch = drop(grant.lookupId)) ports.processes.forget(*watch);
  throw ProxyUnavailable();
}

bool LocalProxyBroker::endRun(std::string_view runId, std::string_view caller) {
  {
    const base::Lock lock(state_->mutex);
    const auto run = state_->runs.find(runId);
    if (run == state_->runs.end() || run->second.caller != caller) return false;
  }
  state_->endRunOf(runId);
  return true;
}

bool LocalProxyBroker::isLive(std::string_view lookupId) const {
  return state_->ports.grants.find(lookupId) != nullptr;
}

void LocalProxyBroker::end(std::string_view lookupId) {
  state_->ports.grants.end(lookupId);
}

void LocalProxyBroker::endOwner(std::string_view owner) {
  state_->ports.grants.endOwner(owner);
}

void LocalProxyBroker::State::endLive(const std::function<bool(const Live&)>& ends) {
  std::vector<std::string> ids;
  {
    const base::Lock lock(mutex);
    for (const auto& [id, grant] : live) {
      if (ends(grant)) ids.emplace_back(id);
    }
  }
  for (const std::string& id : ids) ports.grants.end(id);
}

void LocalProxyBroker::endCaller(std::string_view caller) {
  state_->endLive([&](const State::Live& grant) { return grant.caller == caller; });
}

void LocalProxyBroker::endEnvironments(const std::set<std::string>& names) {
  state_->endLive([&](const State::Live& grant) { return names.contains(grant.environmentName); });
}

void LocalProxyBroker::endAll() {
  state_->ports.grants.endAll();
}

void LocalProxyBroker::endCarrying(std::string_view secretId) {
  state_->ports.grants.endCarrying(secretId);
}

void LocalProxyBroker::resume(std::string_view lookupId) {
  state_->ports.meter.resume(lookupId);
}

std::optional<VelocityQuestion> LocalProxyBroker::State::questionAbout(std::string_view lookupId,
                                                                       Micros charged) const {
  const auto grant = ports.grants.find(lookupId);
  const base::Lock lock(mutex);
  const auto found = live.find(lookupId);
  if (!grant || found == live.end()) return std::nullopt;
  return VelocityQuestion{grant->lookupId, grant->client, found->second.environmentName, centsOf(charged),
                          velocityCents};
}

ProxyGrantSummary LocalProxyBroker::State::summaryOf(const ProxyGrant& grant) const {
  ProxyGrantSummary summary;
  summary.display = std::string(kLocalTokenPrefix) + grant.lookupId;
  for (const auto& [provider, credential] : grant.credentials) summary.providers.push_back(provider);
  const auto spend = ports.meter.spendOf(grant.lookupId);
  summary.spentCents = spend ? centsOf(spend->spentMicros) : 0;
  summary.budgetCents = centsOf(spend ? spend->budgetMicros : grant.limits.budgetMicros);
  summary.calls = spend ? spend->calls : 0;
  summary.expiresAt = grant.limits.expiresAt;
  return summary;
}

std::optional<ProxyGrantSummary> LocalProxyBroker::summaryOf(std::string_view lookupId) const {
  const auto grant = state_->ports.grants.find(lookupId);
  return grant ? std::optional(state_->summaryOf(*grant)) : std::nullopt;
}

ProxyCallerUsage LocalProxyBroker::usageOf(std::string_view caller) const {
  std::set<std::string> pools;
  {
    const base::Lock lock(state_->mutex);
    for (const auto& [id, grant] : state_->live) {
      if (grant.caller == caller) pools.insert(grant.poolKey);
    }
  }
  ProxyCallerUsage usage;
  for (const std::string& pool : pools) {
    const auto spend = state_->ports.meter.spendOfPool(pool);
    if (!spend) continue;
    usage.spentMicros = addSaturating(usage.spentMicros, spend->spentMicros);
    usage.budgetMicros = addSaturating(usage.budgetMicros, spend->budgetMicros);
    usage.calls += spend->calls;
  }
  return usage;
}

std::vector<ProxyGrantStatus> LocalProxyBroker::statuses() const {
  std::vector<std::pair<std::string, std::string>> named;
  {
    const base::Lock lock(state_->mutex);
    for (const auto& [id, grant] : state_->live) named.emplace_back(id, grant.environmentName);
  }
  std::vector<std::pair<std::shared_ptr<const ProxyGrant>, std::string>> found;
  for (auto& [id, environment] : named) {
    if (auto grant = state_->ports.grants.find(id)) found.emplace_back(std::move(grant), std::move(environment));
  }
  const auto order = [](const auto& entry) { return std::pair(entry.first->createdAt, entry.first->lookupId); };
  std::sort(found.begin(), found.end(), [&](const auto& a, const auto& b) { return order(a) < order(b); });
  std::vector<ProxyGrantStatus> statuses;
  for (const auto& [grant, environment] : found) {
    statuses.push_back({state_->summaryOf(*grant), grant->client, environment, grant->taskSessionId, grant->runId,
                        state_->ports.meter.isPaused(grant->lookupId)});
  }
  return statuses;
}

}  // namespace sorvane::proxy
