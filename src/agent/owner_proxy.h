#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "proxy/broker.h"
#include "proxy/ledger.h"
#include "proxy/price_book.h"

namespace sorvane::agent {

/// OwnerProxy is what the owner's actions need of the running proxy; the application implements it. What is protected,
/// and the limits, are the vault's. Failures are base::Error. Any thread.
class OwnerProxy {
 public:
  virtual ~OwnerProxy() = default;
  /// nullopt while it does not listen.
  virtual std::optional<std::uint16_t> port() = 0;
  virtual std::vector<proxy::ProxyGrantStatus> statuses() = 0;
  /// A grant that the velocity stop paused goes on.
  virtual void resume(const std::string& lookupId) = 0;
  virtual void end(const std::string& lookupId) = 0;
  /// Whole sentences that the owner should read.
  virtual std::vector<std::string> notices() = 0;

  virtual proxy::CallLedger::Reading readLedger(const std::function<void(std::string_view line)>& take) = 0;

  /// The book in force.
  virtual std::vector<proxy::PriceRow> prices() = 0;
  /// Fetches OpenRouter's list, keeps it sealed and has it in force. Returns a sentence.
  virtual std::string fetchPrices(const std::stop_token& withdrawn) = 0;
  /// The owner's own prices in the format of docs/prices.md, "" when there are none. Setting keeps them sealed.
  virtual std::string ownPrices() = 0;
  virtual void setOwnPrices(const std::string& prices) = 0;
};

}  // namespace sorvane::agent
