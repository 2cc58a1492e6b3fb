#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent/notifier.h"
#include "agent/owner_proxy.h"
#include "app/price_shelf.h"
#include "app/velocity_asker.h"
#include "base/clock.h"
#include "base/files.h"
#include "platform/adapters.h"
#include "proxy/broker.h"
#include "proxy/budget_notifier.h"
#include "proxy/curl_transport.h"
#include "proxy/forwarder.h"
#include "proxy/grants.h"
#include "proxy/in_memory_meter.h"
#include "proxy/ledger.h"
#include "proxy/server.h"
#include "proxy/velocity_stop.h"
#include "vault/vault.h"

namespace sorvane::app {

/// LocalProxy is the local model proxy of the application: its pieces in the order in which they need one another, kept
/// in step with what the vault protects. Any thread.
class LocalProxy final : public agent::OwnerProxy {
 public:
  struct Ports {
    std::filesystem::path supportFolder;
    base::Files& files;
    vault::SecretStore& store;
    vault::Vault& vault;
    const base::Clock& clock;
    agent::Notifier& notifier;
    agent::ApprovalProvider* approver;  ///< nullptr where nobody can be asked
    proxy::ProxyOrigins origins;
  };
  explicit LocalProxy(Ports ports);
  ~LocalProxy() override;
  LocalProxy(const LocalProxy&) = delete;
  LocalProxy& operator=(const LocalProxy&) = delete;

  proxy::LocalProxyBroker& broker() { return broker_; }
  /// Serves what is protected now. `onPort` is called after the port came, went or changed; `whoseYesCounts`
  /// says so by the owner's policy as it is then.
  void start(std::function<void()> onPort, std::function<agent::Approver()> whoseYesCounts);
  void stop();

  std::optional<std::uint16_t> port() override { return broker_.port(); }
  std::vector<proxy::ProxyGrantStatus> statuses() override { return broker_.statuses(); }
  void resume(const std::string& lookupId) override {
    broker_.resume(lookupId);
    asker_.withdraw(lookupId);
  }
  void end(const std::string& lookupId) override { broker_.end(lookupId); }
  std::vector<std::string> notices() override;
  proxy::CallLedger::Reading readLedger(const std::function<void(std::string_view line)>& take) override {
    return ledger_.read(take);
  }
  std::vector<proxy::PriceRow> prices() override { return shelf_.book()->rows(); }
  std::string fetchPrices(const std::stop_token& withdrawn) override;
  std::string ownPrices() override { return shelf_.own(); }
  void setOwnPrices(const std::string& prices) override { shelf_.setOwn(prices); }

 private:
  proxy::ProxyOptions options() const;
  proxy::LocalProxyBroker::Ports brokerPorts();
  /// After every change of what is protected, or of the options.
  void follow();
  /// What may be served now: nothing, with the reason in `notices`, while the settings cannot be relied on.
  std::map<std::string, vault::ProxyProvider> servable(std::vector<std::string>& notices);

  const Ports ports_;
  const std::unique_ptr<proxy::PeerOwners> owners_ = platform::makePeerOwners();
  const std::unique_ptr<proxy::ProcessWatch> processes_ = platform::makeProcessWatch();
  PriceShelf shelf_;
  proxy::LocalProxyGrants grants_;
  proxy::BudgetNotifier budgets_;
  proxy::InMemoryProxyMeter meter_;
  proxy::NotifyingProxyMeter notifying_;
  proxy::VelocityStop velocity_;
  proxy::CallLedger ledger_;
  proxy::CurlTransport transport_;
  proxy::LocalProxyForwarder forwarder_;
  proxy::LocalProxyServer server_;
  VelocityAsker asker_;
  proxy::LocalProxyBroker broker_;
  // Guarded. A leaf.
  mutable base::Mutex mutex_;
  proxy::ProxyOptions options_ GUARDED_BY(mutex_);
  std::vector<std::string> notices_ GUARDED_BY(mutex_);
  bool hasFailed_ GUARDED_BY(mutex_) = false;  ///< to follow; tried again when the owner looks
  // Serialises following the vault.
  base::Mutex following_;
  std::function<void()> onPort_ GUARDED_BY(following_);
  std::vector<vault::Vault::ObserverToken> observers_;
};

}  // namespace sorvane::app
