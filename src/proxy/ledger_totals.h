#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "base/json_writer.h"
#include "proxy/call_record.h"

namespace sorvane::proxy {

/// Which calls are meant; what is absent leaves nothing out.
struct LedgerFilter {
  std::optional<base::Date> since, until;  ///< from the first on, and before the second
  std::optional<std::string> grant, client, environment, model;
  bool accepts(const ProxyCallRecord& record) const;
};

/// What calls came to. Money stays exact, in micros.
struct CallSum {
  std::int64_t calls = 0, inputTokens = 0, outputTokens = 0, discrepancies = 0;
  Micros chargedMicros = 0;
  void add(const ProxyCallRecord& record);
};

/// LedgerTotals sums calls up by day (UTC), client, environment and model ("anthropic:" and its name).
class LedgerTotals {
 public:
  void add(const ProxyCallRecord& record);
  const CallSum& all() const { return all_; }

  using Sums = std::map<std::string, CallSum, std::less<>>;
  const Sums& byDay() const { return byDay_; }
  const Sums& byClient() const { return byClient_; }
  const Sums& byEnvironment() const { return byEnvironment_; }
  const Sums& byModel() const { return byModel_; }

 private:
  CallSum all_;
  Sums byDay_, byClient_, byEnvironment_, byModel_;
};

/// {"all": sum, "byDay": [sum with "key"], "byClient": ..., "byEnvironment": ..., "byModel": ...}.
void writeTotals(base::JsonWriter& out, const LedgerTotals& totals);

/// CSV of RFC 4180, one record a line with CR LF. A text that a spreadsheet would take for a formula has an apostrophe
/// before it.
std::string csvHead();
std::string csvLine(const ProxyCallRecord& record);

}  // namespace sorvane::proxy
