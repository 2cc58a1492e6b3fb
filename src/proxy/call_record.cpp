#include "proxy/call_record.h"

#include <array>
#include <concepts>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/date.h"
#include "base/json.h"
#include "base/json_writer.h"
#include "base/unicode.h"

namespace sorvane::proxy {
namespace {

using base::Json;
using base::JsonWriter;

constexpr std::array kOutcomes{CallOutcome::completed, CallOutcome::clientAborted, CallOutcome::cut,
                               CallOutcome::timedOut,  CallOutcome::notSent,       CallOutcome::failed};
constexpr std::array kOperations{ProxyOperation::messages, ProxyOperation::chatCompletions, ProxyOperation::responses,
                                 ProxyOperation::embeddings};

struct Count {
  const char* key;
  std::int64_t ProxyUsage::*field;
  bool always;  ///< written also when it is 0
};
constexpr std::array kCounts{
    Count{"inputTokens", &ProxyUsage::inputTokens, true},
    Count{"cacheReadTokens", &ProxyUsage::cacheReadTokens, true},
    Count{"cacheWrite5mTokens", &ProxyUsage::cacheWrite5mTokens, false},
    Count{"cacheWrite1hTokens", &ProxyUsage::cacheWrite1hTokens, false},
    Count{"cacheWrite30mTokens", &ProxyUsage::cacheWrite30mTokens, false},
    Count{"cacheWrite12hTokens", &ProxyUsage::cacheWrite12hTokens, false},
    Count{"outputTokens", &ProxyUsage::outputTokens, true},
    Count{"webSearches", &ProxyUsage::webSearches, false},
};

std::string utf8(std::string_view text) {
  return base::isUtf8(text) ? std::string(text) : base::repairedUtf8(text);
}

void write(JsonWriter& out, const ProxyUsage& usage) {
  out.beginObject();
  for (const Count& count : kCounts) {
    const std::int64_t number = usage.*count.field;
    if (count.always || number != 0) out.key(count.key).integer(number);
  }
  if (usage.reportedMicros) out.key("reportedMicros").integer(*usage.reportedMicros);
  out.endObject();
}

/// Fields reads one object's fields; the first that is missing or of another type makes it false for good.
class Fields {
 public:
  explicit Fields(const Json& object) : object_(object), good_(object.is_object()) {}
  explicit operator bool() const { return good_; }

  const Json* find(const char* key) const {
    if (!good_) return nullptr;
    const auto found = object_.find(key);
    return found == object_.end() ? nullptr : &*found;
  }
  std::string text(const char* key) {
    const Json* const value = find(key);
    return check(value != nullptr && value->is_string()) ? value->get<std::string>() : std::string();
  }
  std::int64_t integer(const char* key) {
    const Json* const value = find(key);
    return check(value != nullptr && value->is_number_integer() && !beyond(*value)) ? value->get<std::int64_t>() : 0;
  }
  bool boolean(const char* key) {
    const Json* const value = find(key);
    return check(value != nullptr && value->is_boolean()) && value->get<bool>();
  }
  /// One of the cases that `shown` writes.
  template <typename Cases, typename Shown>
  typename Cases::value_type oneOf(const char* key, const Cases& cases, const Shown& shown) {
    const std::string word = text(key);
    for (const auto value : cases) {
      if (shown(value) == word) return value;
    }
    check(false);
    return cases[0];
  }
  bool check(bool holds) { return good_ = good_ && holds; }

 private:
  static bool beyond(const Json& value) {
    return value.is_number_unsigned() && std::in_range<std::int64_t>(value.get<std::uint64_t>()) == false;
  }
  const Json& object_;
  bool good_;
};

ProxyUsage usageOf(Fields& record) {
  ProxyUsage usage;
  const Json* const object = record.find("usage");
  if (!record.check(object != nullptr)) return usage;
  Fields fields(*object);
  for (const Count& count : kCounts) {
    if (count.always || fields.find(count.key) != nullptr) usage.*count.field = fields.integer(count.key);
  }
  if (fields.find("reportedMicros") != nullptr) usage.reportedMicros = fields.integer("reportedMicros");
  record.check(static_cast<bool>(fields));
  return usage;
}

}  // namespace

std::string_view word(CallOutcome outcome) {
  switch (outcome) {
    case CallOutcome::completed:
      return "completed";
    case CallOutcome::clientAborted:
      return "clientAborted";
    case CallOutcome::cut:
      return "cut";
    case CallOutcome::timedOut:
      return "timedOut";
    case CallOutcome::notSent:
      return "notSent";
    case CallOutcome::failed:
      return "failed";
  }
  return "";
}

std::string encodeCall(const ProxyCallRecord& record) {
  JsonWriter out;
  out.reserve(640);
  out.beginObject().field("requestId", utf8(record.requestId)).field("at", base::iso8601(record.at));
  out.field("grant", utf8(record.grant));
  if (record.taskSessionId) out.field("taskSessionId", utf8(*record.taskSessionId));
  out.field("environment", utf8(record.environment)).field("client", utf8(record.client));
  out.field("provider", vault::word(record.provider)).field("model", utf8(record.model));
  out.field("operation", shownName(record.operation)).key("streamed").boolean(record.streamed);
  out.field("outcome", word(record.outcome)).key("status").integer(record.status);
  out.key("latencyMs").integer(record.latencyMs).key("usage");
  write(out, record.usage);
  out.key("reservedMicros").integer(record.reservedMicros).key("chargedMicros").integer(record.chargedMicros);
  out.field("priceSource", utf8(record.priceSource)).field("priceVersion", utf8(record.priceVersion));
  out.key("discrepancy").boolean(record.discrepancy).endObject();
  return std::string(out.view());
}

std::optional<ProxyCallRecord> decodeCall(std::string_view line) {
  const auto json = base::parseJson(line);
  if (!json) return std::nullopt;
  Fields fields(*json);
  ProxyCallRecord record;
  record.requestId = fields.text("requestId");
  const auto at = base::parseIso8601(fields.text("at"));
  if (!fields.check(at.has_value())) return std::nullopt;
  record.at = *at;
  record.grant = fields.text("grant");
  if (fields.find("taskSessionId") != nullptr) record.taskSessionId = fields.text("taskSessionId");
  record.environment = fields.text("environment");
  record.client = fields.text("client");
  record.provider = fields.oneOf("provider", std::to_array(vault::kProxyProviders),
                                 [](ProxyProvider provider) { return vault::word(provider); });
  record.model = fields.text("model");
  record.operation = fields.oneOf("operation", kOperations, [](ProxyOperation o) { return shownName(o); });
  record.streamed = fields.boolean("streamed");
  record.outcome = fields.oneOf("outcome", kOutcomes, [](CallOutcome outcome) { return word(outcome); });
  const std::int64_t status = fields.integer("status");
  if (!fields.check(std::in_range<int>(status))) return std::nullopt;
  record.status = static_cast<int>(status);
  record.latencyMs = fields.integer("latencyMs");
  record.usage = usageOf(fields);
  record.reservedMicros = fields.integer("reservedMicros");
  record.chargedMicros = fields.integer("chargedMicros");
  record.priceSource = fields.text("priceSource");
  record.priceVersion = fields.text("priceVersion");
  record.discrepancy = fields.boolean("discrepancy");
  if (!fields) return std::nullopt;
  return record;
}

}  // namespace sorvane::proxy
