// What the admission of one call costs beside the call itself: finding the grant of its token, reserving and settling,
// with 10,000 live grants; alone and by eight threads at once.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "proxy/budget_notifier.h"
#include "proxy/grants.h"
#include "proxy/in_memory_meter.h"
#include "proxy/velocity_stop.h"

namespace {

using namespace sorvane;

constexpr int kGrants = 10'000;

/// The registry and the meters as the application composes them.
struct House {
  const base::SystemClock clock;
  proxy::LocalProxyGrants grants{clock};
  proxy::InMemoryProxyMeter counting{clock};
  proxy::BudgetNotifier notifier{{[](const std::string&, const std::string&) {}, {}}};
  proxy::NotifyingProxyMeter noticing{counting, notifier};
  proxy::VelocityStop meter{noticing, clock};
  std::vector<std::string> tokens, ids;

  House() {
    for (int i = 0; i < kGrants; ++i) {
      proxy::NewGrantEntry entry;
      entry.owner = "session " + std::to_string(i);
      entry.grant.limits.budgetMicros = proxy::kMostMicros;
      entry.grant.limits.requestsPerMinute = 2'000'000'000;
      entry.grant.limits.expiresAt = clock.now() + std::chrono::hours(8);
      const auto minted = grants.issue(std::move(entry));
      meter.open(minted.grant->lookupId, minted.grant->lookupId, minted.grant->limits);
      tokens.emplace_back(minted.token.view());
      ids.push_back(minted.grant->lookupId);
    }
  }
};

House& house() {
  static House made;
  return made;
}

/// The next grant of this thread: a step that visits all of them, in no order that a cache would like.
std::size_t next(std::size_t at) {
  return (at + 7'919) % kGrants;
}

void admit(benchmark::State& state, proxy::ProxyMeter& meter) {
  House& all = house();
  auto at = static_cast<std::size_t>(state.thread_index()) * 1'009 % kGrants;
  for (auto _ : state) {
    at = next(at);
    const auto grant = all.grants.lookUp(all.tokens[at]);
    if (!grant) return state.SkipWithError("a live token was not found");
    const auto answer = meter.reserve(grant->lookupId, 1'000);
    const auto* const admitted = std::get_if<proxy::Admitted>(&answer);
    if (admitted == nullptr) return state.SkipWithError("a call was not admitted");
    meter.settle(grant->lookupId, admitted->id, 900);
  }
  state.SetItemsProcessed(state.iterations());
}

void admission(benchmark::State& state) {
  admit(state, house().counting);
}
void admissionWithNotices(benchmark::State& state) {
  admit(state, house().meter);
}
void lookUpAlone(benchmark::State& state) {
  House& all = house();
  auto at = static_cast<std::size_t>(state.thread_index()) * 1'009 % kGrants;
  for (auto _ : state) benchmark::DoNotOptimize(all.grants.lookUp(all.tokens[at = next(at)]));
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(lookUpAlone)->Threads(1)->Threads(8)->UseRealTime();
BENCHMARK(admission)->Threads(1)->Threads(8)->UseRealTime();
BENCHMARK(admissionWithNotices)->Threads(1)->Threads(8)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
