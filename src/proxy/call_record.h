#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "proxy/route.h"
#include "proxy/usage.h"

namespace sorvane::proxy {

/// How a call ended. The stored words are the names of the cases.
enum class CallOutcome {
  completed,      ///< the provider's answer went to the client whole, whatever its status
  clientAborted,  ///< the client went away
  cut,            ///< the grant ended, or the server stopped
  timedOut,       ///< the call took longer than the grant allows
  notSent,        ///< the provider could not be reached; nothing is charged
  failed,         ///< the connection failed after the request may have been sent
};
std::string_view word(CallOutcome outcome);

/// ProxyCallRecord is one forwarded call as the ledger keeps it, keys in this order.
struct ProxyCallRecord {
  std::string requestId;
  base::Date at;
  std::string grant;  ///< the grant's lookup id
  std::optional<std::string> taskSessionId;
  std::string environment;
  std::string client;
  ProxyProvider provider = ProxyProvider::anthropic;
  std::string model;
  ProxyOperation operation = ProxyOperation::messages;
  bool streamed = false;
  CallOutcome outcome = CallOutcome::completed;
  int status = 0;  ///< the provider's; 0 when none came
  std::int64_t latencyMs = 0;
  ProxyUsage usage;
  Micros reservedMicros = 0;
  Micros chargedMicros = 0;
  std::string priceSource;
  std::string priceVersion;
  bool discrepancy = false;
};

/// One line of the ledger, without its line feed: compact JSON, dates as in every stored record, money in whole micros.
/// Absent fields and the cache and search counts that are 0 are left out. Text that is no UTF-8 is repaired.
std::string encodeCall(const ProxyCallRecord& record);
/// nullopt when the text is not one object with the keys and types of a record; unknown keys are passed over.
std::optional<ProxyCallRecord> decodeCall(std::string_view line);

/// ProxyCallLog takes the record of every call. Any thread; must not throw.
class ProxyCallLog {
 public:
  virtual ~ProxyCallLog() = default;
  virtual void record(const ProxyCallRecord& record) = 0;
};

}  // namespace sorvane::proxy
