#include "app/local_proxy.h"

#include "base/diagnostics.h"
#include "proxy/price_book.h"
#include "proxy/upstream_prices.h"

namespace sorvane::app {
namespace {

constexpr std::string_view kNotUnderstood =
    "The proxy's settings cannot be read by this version of sorvane, so programs get no stand-ins for protected keys. "
    "Nothing was shared. Use the version of sorvane that saved them.";
constexpr std::string_view kNotListening =
    "The local proxy could not open its port, so programs get no stand-ins for protected keys. Nothing was shared. It "
    "is tried again with every `sorvane proxy status`; if that does not help, start sorvaned anew.";

proxy::TransportSettings transportSettings(const proxy::ProxyOptions& options) {
  return {SORVANE_VERSION, options.authorityPem, options.outboundProxy};
}

}  // namespace

LocalProxy::LocalProxy(Ports ports)
    : ports_(std::move(ports)),
      shelf_(ports_.supportFolder, ports_.files, ports_.store, ports_.clock),
      grants_(ports_.clock),
      budgets_({[this](const std::string& title, const std::string& body) { ports_.notifier.notify(title, body); },
                [this](std::string_view lookupId) { return grants_.describe(lookupId); }}),
      meter_(ports_.clock,
             [](std::string_view lookupId, const proxy::ReservationId&) {
               base::diagnose("proxy", "a reservation of " + std::string(lookupId) + " was settled twice");
             }),
      notifying_(meter_, budgets_),
      velocity_(notifying_, ports_.clock),
      ledger_(ports_.supportFolder / proxy::kLedgerName, {ports_.files, ports_.vault.settings(), ports_.clock}),
      transport_(ports_.clock, transportSettings({})),
      forwarder_({velocity_, ledger_, transport_, ports_.clock, [this] { return shelf_.book(); },
                  [this] { return options().refuseUnknownFields; }, ports_.origins}),
      server_({}, {grants_, forwarder_, *owners_, ports_.clock}),
      asker_({ports_.approver, ports_.notifier,
              [this](std::string_view lookupId) { return grants_.find(lookupId) != nullptr; }}),
      broker_(brokerPorts()) {
  observers_ = {
      ports_.vault.observeProtection([this](const std::set<std::string>&) { follow(); }),
      ports_.vault.observeSecretChanges([this](const std::vector<std::string>& ids) {
        for (const std::string& id : ids) broker_.endCarrying(id);
      }),
      ports_.vault.observeSecretRemoved([this](const std::string& id) {
        broker_.endCarrying(id);
        follow();
      }),
  };
}

LocalProxy::~LocalProxy() {
  for (const auto& token : observers_) ports_.vault.stopObserving(token);
  stop();
}

proxy::LocalProxyBroker::Ports LocalProxy::brokerPorts() {
  // Before the broker's own handler, which may wait for the watch of a process: nothing holds up the cut.
  grants_.addHandler([this](std::string_view lookupId) {
    server_.cut(lookupId);
    asker_.withdraw(lookupId);
  });
  return {ports_.clock,
          grants_,
          velocity_,
          server_,
          *processes_,
          [this] { return options(); },
          [this](const proxy::VelocityQuestion& question, std::function<void(bool)> answer) {
            asker_.ask(question, std::move(answer));
          }};
}

proxy::ProxyOptions LocalProxy::options() const {
  const base::Lock lock(mutex_);
  return options_;
}

void LocalProxy::start(std::function<void()> onPort, std::function<agent::Approver()> whoseYesCounts) {
  asker_.goBy(std::move(whoseYesCounts));
  {
    const base::Lock lock(following_);
    onPort_ = std::move(onPort);
  }
  if (ports_.vault.storageFailure()) return;
  ledger_.look();
  follow();
}

void LocalProxy::stop() {
  {
    const base::Lock lock(following_);
    onPort_ = {};
  }
  broker_.stop();
  asker_.stop();
  ledger_.stop();
}

std::map<std::string, vault::ProxyProvider> LocalProxy::servable(std::vector<std::string>& notices) {
  const auto protection = ports_.vault.protection();
  if (protection.state == vault::ProtectionState::removed) {
    notices.push_back(vault::ProtectionError::settingsRemoved().sentence());
    return {};
  }
  const auto options = proxy::decodeOptions(protection.settings->options);
  if (!options) {
    notices.emplace_back(kNotUnderstood);
    return {};
  }
  transport_.configure(transportSettings(*options));
  {
    const base::Lock lock(mutex_);
    options_ = *options;
  }
  auto servable = protection.settings->protectedSecrets;
  const auto records = ports_.vault.records();
  std::erase_if(servable, [&](const auto& entry) { return records->secretById(entry.first) == nullptr; });
  return servable;
}

void LocalProxy::follow() {
  const base::Lock following(following_);
  const auto before = broker_.port();
  std::vector<std::string> notices;
  // What cannot be read, or configured, may have been narrowed: nothing is served then.
  std::map<std::string, vault::ProxyProvider> wanted;
  bool failed = false;
  try {
    wanted = servable(notices);
  } catch (const base::Error& error) {
    failed = true;
    notices.push_back(error.sentence());
    base::diagnose("proxy", error.sentence());
  }
  broker_.serve(wanted);
  if (!wanted.empty() && !broker_.port()) {
    failed = true;
    notices.emplace_back(kNotListening);
  }
  {
    const base::Lock lock(mutex_);
    notices_ = std::move(notices);
    hasFailed_ = failed;
  }
  if (broker_.port() != before && onPort_) onPort_();
}

std::vector<std::string> LocalProxy::notices() {
  const auto hasFailed = [&] {
    const base::Lock lock(mutex_);
    return hasFailed_;
  };
  if (hasFailed()) follow();
  std::vector<std::string> all;
  {
    const base::Lock lock(mutex_);
    all = notices_;
  }
  for (const auto& more : {ledger_.notices(), shelf_.notices()}) all.insert(all.end(), more.begin(), more.end());
  return all;
}

std::string LocalProxy::fetchPrices(const std::stop_token& withdrawn) {
  const std::string list = proxy::fetchOpenRouterPrices(transport_, ports_.origins, withdrawn);
  const auto prices = proxy::pricesOfOpenRouterList(list, ports_.clock.now());
  if (!prices) {
    throw base::Error(
        "OpenRouter's price list is not one that sorvane understands. The prices in force stay as they are. Try again "
        "later, or set prices of your own.");
  }
  shelf_.setOpenRouter(*prices);
  return "OpenRouter's prices are in force as of now.";
}

}  // namespace sorvane::app
