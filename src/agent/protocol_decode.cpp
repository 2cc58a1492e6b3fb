#include <cmath>
#include <nlohmann/json.hpp>

#include "agent/protocol.h"
#include "base/date.h"
#include "base/json.h"

namespace sorvane::agent {
namespace {

using base::Json;

/// Thrown and caught in this file only: the text has another shape than the record.
struct WrongShape {};

/// JsonOwner wipes every text of the tree when it goes: a parsed message holds tokens and values.
class JsonOwner {
 public:
  explicit JsonOwner(Json value) : value_(std::move(value)) {}
  ~JsonOwner() { wipeTexts(value_); }
  JsonOwner(const JsonOwner&) = delete;
  JsonOwner& operator=(const JsonOwner&) = delete;
  const Json& get() const { return value_; }

 private:
  static void wipeTexts(Json& value) {
    if (value.is_string()) base::wipe(value.get_ref<std::string&>());
    if (value.is_structured()) {
      for (auto& item : value) wipeTexts(item);
    }
  }
  Json value_;
};

const std::string& anyText(const Json& value) {
  if (!value.is_string()) throw WrongShape{};
  return value.get_ref<const std::string&>();
}

/// Names, paths and words: none of them may hold a NUL byte, which ends them early for the system.
const std::string& plainText(const Json& value) {
  const std::string& text = anyText(value);
  if (text.find('\0') != std::string::npos) throw WrongShape{};
  return text;
}

/// Fields reads one field of an object, or nothing when it is absent or null.
class Fields {
 public:
  explicit Fields(const Json& object) : object_(object) {
    if (!object.is_object()) throw WrongShape{};
  }
  const Json* find(const char* name) const {
    const auto found = object_.find(name);
    return found == object_.end() || found->is_null() ? nullptr : &*found;
  }
  const Json& need(const char* name) const {
    const Json* value = find(name);
    if (value == nullptr) throw WrongShape{};
    return *value;
  }
  std::optional<std::string> text(const char* name) const {
    const Json* value = find(name);
    return value ? std::optional(plainText(*value)) : std::nullopt;
  }
  std::optional<base::SecretText> secret(const char* name) const {
    const Json* value = find(name);
    return value ? std::optional(base::SecretText(anyText(*value))) : std::nullopt;
  }
  std::optional<std::int64_t> integer(const char* name) const {
    const Json* value = find(name);
    if (value == nullptr) return std::nullopt;
    if (value->is_number_unsigned() && value->get<std::uint64_t>() > INT64_MAX) throw WrongShape{};
    if (value->is_number_integer()) return value->get<std::int64_t>();
    throw WrongShape{};
  }
  std::optional<std::vector<std::string>> list(const char* name) const {
    const Json* value = find(name);
    if (value == nullptr) return std::nullopt;
    if (!value->is_array()) throw WrongShape{};
    std::vector<std::string> items;
    for (const Json& item : *value) items.push_back(plainText(item));
    return items;
  }
  bool boolean(const char* name) const {
    const Json& value = need(name);
    if (!value.is_boolean()) throw WrongShape{};
    return value.get<bool>();
  }
  std::int64_t needInteger(const char* name) const {
    const auto value = integer(name);
    if (!value) throw WrongShape{};
    return *value;
  }
  base::Date date(const char* name) const {
    const Json& value = need(name);
    // A fraction is allowed on the wire; the records have whole seconds. 1e11 seconds lie beyond the year 5000.
    if (!value.is_number() || std::abs(value.get<double>()) > 1e11) throw WrongShape{};
    return base::Date(base::kReferenceDateOffset + std::chrono::seconds(std::llround(std::floor(value.get<double>()))));
  }

 private:
  const Json& object_;
};

ProxySessionSummary summaryOf(const Json& json) {
  const Fields fields(json);
  ProxySessionSummary summary;
  summary.display = plainText(fields.need("display"));
  summary.providers = fields.list("providers").value_or(std::vector<std::string>{});
  summary.spentCents = fields.needInteger("spentCents");
  summary.budgetCents = fields.needInteger("budgetCents");
  summary.calls = fields.needInteger("calls");
  summary.expiresAt = fields.date("expiresAt");
  return summary;
}

TaskSessionInfo sessionOf(const Json& json) {
  const Fields fields(json);
  TaskSessionInfo info;
  info.id = plainText(fields.need("id"));
  info.client = plainText(fields.need("client"));
  info.environment = plainText(fields.need("environment"));
  info.startedAt = fields.date("startedAt");
  info.expiresAt = fields.date("expiresAt");
  if (const Json* proxy = fields.find("proxy")) info.proxy = summaryOf(*proxy);
  return info;
}

UsageStatus usageOf(const Json& json) {
  const Fields fields(json);
  UsageStatus usage;
  usage.percent = fields.needInteger("percent");
  usage.notice = fields.text("notice");
  usage.used = fields.text("used");
  usage.allowance = fields.text("allowance");
  usage.planName = fields.text("planName");
  usage.windowEnd = fields.text("windowEnd");
  usage.plan = fields.text("plan");
  return usage;
}

ClipboardPeek peekOf(const Json& json) {
  const Fields fields(json);
  ClipboardPeek peek;
  peek.detected = fields.boolean("detected");
  peek.suggestedName = fields.text("suggestedName");
  peek.kind = fields.text("kind");
  peek.masked = fields.text("masked");
  peek.fingerprint = fields.text("fingerprint");
  peek.note = fields.text("note");
  return peek;
}

AgentRequest requestOf(const Json& json) {
  const Fields fields(json);
  AgentRequest request;
  request.token = base::SecretText(plainText(fields.need("token")));
  const auto op = agentOpOf(plainText(fields.need("op")));
  if (!op) throw WrongShape{};
  request.op = *op;
  request.arg = fields.text("arg");
  request.value = fields.secret("value");
  if (request.value && request.value->view().find('\0') != std::string_view::npos) throw WrongShape{};
  request.requestor = fields.text("requestor");
  request.environment = fields.text("environment");
  request.directory = fields.text("directory");
  request.taskSession = fields.text("taskSession");
  request.durationSeconds = fields.integer("durationSeconds");
  if (const Json* payload = fields.find("payload")) {
    if (!payload->is_object()) throw WrongShape{};
    request.hasPayload = true;
    for (const auto& [name, value] : payload->items()) {
      if (name.find('\0') != std::string::npos) throw WrongShape{};
      request.payload.emplace(name, plainText(value));
    }
  }
  return request;
}

AgentResponse responseOf(const Json& json) {
  const Fields fields(json);
  AgentResponse response;
  response.ok = fields.boolean("ok");
  response.error = fields.text("error");
  response.names = fields.list("names");
  if (const Json* lines = fields.find("lines")) {
    if (!lines->is_array()) throw WrongShape{};
    response.lines.emplace();
    for (const Json& line : *lines) response.lines->emplace_back(anyText(line));
  }
  response.warnings = fields.list("warnings");
  response.value = fields.secret("value");
  response.missing = fields.list("missing");
  response.directory = fields.text("directory");
  if (const Json* sessions = fields.find("sessions")) {
    if (!sessions->is_array()) throw WrongShape{};
    response.sessions.emplace();
    for (const Json& session : *sessions) response.sessions->push_back(sessionOf(session));
  }
  response.errorCode = fields.text("errorCode");
  response.document = fields.secret("document");
  response.publicNames = fields.list("publicNames");
  response.runControlAllowed = fields.list("runControlAllowed");
  response.proxyRun = fields.text("proxyRun");
  if (const Json* usage = fields.find("usage")) response.usage = usageOf(*usage);
  if (const Json* clipboard = fields.find("clipboard")) response.clipboard = peekOf(*clipboard);
  return response;
}

template <typename Record, Record (*read)(const Json&)>
std::optional<Record> decode(std::string_view text) {
  auto json = base::parseJson(text);
  if (!json) return std::nullopt;
  const JsonOwner owner(std::move(*json));
  try {
    return read(owner.get());
  } catch (const WrongShape&) {
    return std::nullopt;
  }
}

AgentInfo infoOf(const Json& json) {
  const Fields fields(json);
  AgentInfo info;
  info.socketPath = plainText(fields.need("socketPath"));
  info.token = base::SecretText(plainText(fields.need("token")));
  info.capabilities = fields.list("capabilities");
  return info;
}

}  // namespace

std::optional<AgentRequest> decodeRequest(std::string_view text) {
  return decode<AgentRequest, requestOf>(text);
}
std::optional<AgentResponse> decodeResponse(std::string_view text) {
  return decode<AgentResponse, responseOf>(text);
}
std::optional<AgentInfo> decodeInfo(std::string_view text) {
  return decode<AgentInfo, infoOf>(text);
}

}  // namespace sorvane::agent
