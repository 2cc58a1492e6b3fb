// The local proxy with providers of a test's own: the composition root of the tests and benchmarks, which no package
// holds. Reads JSON lines and answers each with one. The first names the providers' origins, the certificate authority
// they have and the keys that stand behind every grant; it is answered with the port. Then come {"act": "issue" | "end"
// | "spend" | "records"}.
#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "base/mutex.h"
#include "platform/linux/peer_owner.h"
#include "proxy/call_record.h"
#include "proxy/curl_transport.h"
#include "proxy/forwarder.h"
#include "proxy/grants.h"
#include "proxy/in_memory_meter.h"
#include "proxy/price_book.h"
#include "proxy/server.h"

namespace {

using nlohmann::json;
using namespace sorvane;

json toJson(const proxy::ProxyCallRecord& record) {
  return {{"requestId", record.requestId},
          {"grant", record.grant},
          {"provider", word(record.provider)},
          {"model", record.model},
          {"operation", shownName(record.operation)},
          {"streamed", record.streamed},
          {"outcome", word(record.outcome)},
          {"status", record.status},
          {"reservedMicros", record.reservedMicros},
          {"chargedMicros", record.chargedMicros},
          {"discrepancy", record.discrepancy}};
}

/// The records of calls that nobody asked for yet.
class Records final : public proxy::ProxyCallLog {
 public:
  explicit Records(bool kept) : kept_(kept) {}
  void record(const proxy::ProxyCallRecord& record) override {
    if (!kept_) return;
    const base::Lock lock(mutex_);
    records_.push_back(toJson(record));
    came_.notify_all();
  }
  /// Waits until there are so many.
  json take(std::size_t count) {
    base::Lock lock(mutex_);
    while (records_.size() < count) came_.wait(lock.mutex());
    return std::exchange(records_, json::array());
  }

 private:
  // Constant after construction.
  const bool kept_;
  // Guarded.
  base::Mutex mutex_;
  base::Condition came_;
  json records_ GUARDED_BY(mutex_) = json::array();
};

proxy::ProxyOrigins originsOf(const json& told) {
  proxy::ProxyOrigins origins;
  origins.anthropic = told.value("anthropic", "https://127.0.0.1:1");
  origins.openai = told.value("openai", "https://127.0.0.1:1");
  origins.openrouter = told.value("openrouter", "https://127.0.0.1:1");
  return origins;
}

class Root {
 public:
  explicit Root(const json& told)
      : keys_(told.at("keys")),
        records_(told.value("records", true)),
        meter_(clock_),
        grants_(clock_),
        transport_(clock_, settingsOf(told)),
        forwarder_({meter_, records_, transport_, clock_, [this] { return prices_; }, [] { return false; },
                    originsOf(told.at("origins"))}),
        server_({}, {grants_, forwarder_, owners_, clock_}) {
    grants_.addHandler([this](std::string_view lookupId) {
      meter_.close(lookupId);
      server_.cut(lookupId);
    });
  }

  json start() { return {{"port", server_.start()}}; }
  json obey(const json& command) {
    const std::string act = command.at("act");
    if (act == "issue") return issue(command);
    if (act == "spend") return spend(command.at("lookupId"));
    if (act == "records") return {{"records", records_.take(command.at("count"))}};
    if (act != "end") throw std::runtime_error("there is no act " + act);
    grants_.end(command.at("lookupId").get<std::string>());
    return {{"ended", true}};
  }

 private:
  static proxy::TransportSettings settingsOf(const json& told) {
    proxy::TransportSettings settings;
    settings.version = "0.0-test";
    settings.authorityPem = told.at("authority").get<std::string>();
    return settings;
  }

  json issue(const json& asked) {
    proxy::NewGrantEntry entry;
    entry.grant.environment = "proj_made-up";
    entry.grant.client = "a test";
    for (const auto& [name, key] : keys_.items()) {
      const proxy::ProxyProvider provider = vault::proxyProviderOf(name).value();
      const json all = json::array({"anthropic", "openai", "openrouter"});
      const json wanted = asked.value("providers", all);
      if (std::find(wanted.begin(), wanted.end(), name) == wanted.end()) continue;
      entry.grant.credentials.emplace(
          provider, proxy::ProxyCredential{provider, "sec_made-up", 1, base::SecretText(key.get<std::string>())});
    }
    proxy::ProxyLimits& limits = entry.grant.limits;
    limits.budgetMicros = asked.value("budgetMicros", proxy::Micros{1'000'000'000});
    limits.expiresAt = clock_.now() + std::chrono::hours(1);
    limits.requestsPerMinute = asked.value("requestsPerMinute", 10'000);
    limits.maxBodyBytes = asked.value("maxBodyBytes", std::int64_t{33'554'432});
    limits.maxConcurrentCalls = asked.value("maxConcurrentCalls", proxy::kMaxConcurrentCalls);
    limits.callTimeoutSeconds = asked.value("callTimeoutSeconds", proxy::kCallTimeoutSeconds);
    if (const auto models = asked.find("models"); models != asked.end()) {
      limits.models.emplace();
      for (const auto& [name, list] : models->items()) {
        limits.models->emplace(vault::proxyProviderOf(name).value(), list.get<std::vector<std::string>>());
      }
    }
    entry.owner = "session made-up";
    const proxy::MintedGrant minted = grants_.issue(std::move(entry));
    meter_.open(minted.grant->lookupId, minted.grant->lookupId, minted.grant->limits);
    return {{"token", minted.token.view()}, {"lookupId", minted.grant->lookupId}};
  }

  json spend(const std::string& lookupId) const {
    const proxy::ProxySpend spend = meter_.spendOf(lookupId).value();
    return {{"spentMicros", spend.spentMicros}, {"reservedMicros", spend.reservedMicros}, {"calls", spend.calls}};
  }

  const json keys_;
  const base::SystemClock clock_{};
  const std::shared_ptr<const proxy::PriceBook> prices_ =
      std::make_shared<proxy::PriceBook>(proxy::PriceBook::shipped());
  Records records_;
  proxy::InMemoryProxyMeter meter_;
  proxy::LocalProxyGrants grants_;
  proxy::CurlTransport transport_;
  proxy::LocalProxyForwarder forwarder_;
  platform::LinuxPeerOwners owners_;
  proxy::LocalProxyServer server_;
};

void say(const json& answer) {
  std::cout << answer.dump() << std::endl;
}

}  // namespace

int main() {
  proxy::clearOutboundEnvironment();
  std::string line;
  if (!std::getline(std::cin, line)) return 2;
  try {
    Root root(json::parse(line));
    say(root.start());
    while (std::getline(std::cin, line)) say(root.obey(json::parse(line)));
  } catch (const std::exception& problem) {
    say({{"trouble", problem.what()}});
    return 1;
  }
}
