#include "proxy/ledger_totals.h"

#include <algorithm>
#include <initializer_list>

#include "base/date.h"

namespace sorvane::proxy {
namespace {

constexpr std::string_view kCsvColumns[] = {"requestId",
                                            "at",
                                            "grant",
                                            "taskSessionId",
                                            "environment",
                                            "client",
                                            "provider",
                                            "model",
                                            "operation",
                                            "streamed",
                                            "outcome",
                                            "status",
                                            "latencyMs",
                                            "inputTokens",
                                            "cacheReadTokens",
                                            "cacheWrite5mTokens",
                                            "cacheWrite1hTokens",
                                            "cacheWrite30mTokens",
                                            "cacheWrite12hTokens",
                                            "outputTokens",
                                            "webSearches",
                                            "reportedMicros",
                                            "reservedMicros",
                                            "chargedMicros",
                                            "priceSource",
                                            "priceVersion",
                                            "discrepancy"};

std::string modelKey(const ProxyCallRecord& record) {
  return std::string(vault::word(record.provider)).append(":").append(record.model);
}

void write(base::JsonWriter& out, const CallSum& sum) {
  out.key("calls").integer(sum.calls).key("inputTokens").integer(sum.inputTokens);
  out.key("outputTokens").integer(sum.outputTokens).key("chargedMicros").integer(sum.chargedMicros);
  out.key("discrepancies").integer(sum.discrepancies);
}

void write(base::JsonWriter& out, std::string_view name, const LedgerTotals::Sums& sums) {
  out.key(name).beginArray();
  for (const auto& [key, sum] : sums) {
    out.beginObject().field("key", key);
    write(out, sum);
    out.endObject();
  }
  out.endArray();
}

std::string inQuotes(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) out.append(c == '"' ? 2 : 1, c);
  return out += '"';
}

/// A spreadsheet runs what begins so. The full-width forms count too: some programs fold them.
bool looksLikeFormula(std::string_view text) {
  for (const std::string_view first : {"=", "+", "-", "@", "\t", "\r", "\n", "＝", "＋", "－", "＠"}) {
    if (text.starts_with(first)) return true;
  }
  return false;
}

std::string field(std::string_view text) {
  std::string plain = looksLikeFormula(text) ? "'" : "";
  plain.append(text);
  return plain.find_first_of(",\"\r\n'") == std::string::npos ? plain : inQuotes(plain);
}

}  // namespace

bool LedgerFilter::accepts(const ProxyCallRecord& record) const {
  const auto differs = [](const std::optional<std::string>& wanted, const std::string& text) {
    return wanted && *wanted != text;
  };
  if ((since && record.at < *since) || (until && record.at >= *until)) return false;
  if (model && *model != record.model && *model != modelKey(record)) return false;
  return !differs(grant, record.grant) && !differs(client, record.client) && !differs(environment, record.environment);
}

void CallSum::add(const ProxyCallRecord& record) {
  const ProxyUsage& usage = record.usage;
  ++calls;
  for (const std::int64_t tokens : {usage.inputTokens, usage.cacheReadTokens, usage.cacheWrite5mTokens,
                                    usage.cacheWrite1hTokens, usage.cacheWrite30mTokens, usage.cacheWrite12hTokens}) {
    inputTokens = addSaturating(inputTokens, std::max<std::int64_t>(tokens, 0));
  }
  outputTokens = addSaturating(outputTokens, std::max<std::int64_t>(usage.outputTokens, 0));
  chargedMicros = addSaturating(chargedMicros, std::max<Micros>(record.chargedMicros, 0));
  if (record.discrepancy) ++discrepancies;
}

void LedgerTotals::add(const ProxyCallRecord& record) {
  all_.add(record);
  byDay_[base::iso8601(record.at).substr(0, 10)].add(record);
  byClient_[record.client].add(record);
  byEnvironment_[record.environment].add(record);
  byModel_[modelKey(record)].add(record);
}

void writeTotals(base::JsonWriter& out, const LedgerTotals& totals) {
  out.beginObject().key("all").beginObject();
  write(out, totals.all());
  out.endObject();
  write(out, "byDay", totals.byDay());
  write(out, "byClient", totals.byClient());
  write(out, "byEnvironment", totals.byEnvironment());
  write(out, "byModel", totals.byModel());
  out.endObject();
}

std::string csvHead() {
  std::string line;
  for (const std::string_view column : kCsvColumns) line.append(line.empty() ? "" : ",").append(column);
  return line += "\r\n";
}

std::string csvLine(const ProxyCallRecord& record) {
  std::string line;
  const auto text = [&](std::string_view value) { line.append(field(value)).push_back(','); };
  const auto number = [&](std::int64_t value) { line.append(std::to_string(value)).push_back(','); };
  text(record.requestId);
  text(base::iso8601(record.at));
  text(record.grant);
  text(record.taskSessionId.value_or(""));
  text(record.environment);
  text(record.client);
  text(vault::word(record.provider));
  text(record.model);
  text(shownName(record.operation));
  text(record.streamed ? "true" : "false");
  text(word(record.outcome));
  number(record.status);
  number(record.latencyMs);
  const ProxyUsage& usage = record.usage;
  for (const std::int64_t tokens :
       {usage.inputTokens, usage.cacheReadTokens, usage.cacheWrite5mTokens, usage.cacheWrite1hTokens,
        usage.cacheWrite30mTokens, usage.cacheWrite12hTokens, usage.outputTokens, usage.webSearches}) {
    number(tokens);
  }
  usage.reportedMicros ? number(*usage.reportedMicros) : text("");
  number(record.reservedMicros);
  number(record.chargedMicros);
  text(record.priceSource);
  text(record.priceVersion);
  return line.append(record.discrepancy ? "true" : "false").append("\r\n");
}

}  // namespace sorvane::proxy
