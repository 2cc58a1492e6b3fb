#include "proxy/options.h"

#include <nlohmann/json.hpp>

#include "base/json.h"
#include "proxy/limits_json.h"

namespace sorvane::proxy {
namespace {

using base::Json;

/// False when the key is there and not a text; counts the keys that are there.
bool readText(const Json& object, const char* name, std::optional<std::string>& text, std::size_t& keys) {
  const auto found = object.find(name);
  if (found == object.end()) return true;
  ++keys;
  if (!found->is_string()) return false;
  text = found->get<std::string>();
  return true;
}

bool readCents(const Json& object, const char* name, std::optional<std::int64_t>& cents, std::size_t& keys) {
  const auto found = object.find(name);
  if (found == object.end()) return true;
  ++keys;
  if (!found->is_number_unsigned() || found->get<std::uint64_t>() > std::uint64_t{INT64_MAX}) return false;
  cents = found->get<std::int64_t>();
  return true;
}

}  // namespace

std::string encodeOptions(const ProxyOptions& options) {
  base::JsonWriter out;
  out.beginObject();
  write(out.key("limits"), options.limits);
  out.key("refuseUnknownFields").boolean(options.refuseUnknownFields);
  if (options.velocityCentsPerMinute) out.key("velocityCentsPerMinute").integer(*options.velocityCentsPerMinute);
  out.field("authorityPem", options.authorityPem);
  out.field("outboundProxy", options.outboundProxy);
  out.endObject();
  return std::string(out.view());
}

std::optional<ProxyOptions> decodeOptions(std::string_view json) {
  if (json.empty()) return ProxyOptions{};
  const auto object = base::parseJson(json);
  if (!object || !object->is_object()) return std::nullopt;
  const auto limits = object->find("limits"), strict = object->find("refuseUnknownFields");
  if (limits == object->end() || strict == object->end() || !strict->is_boolean()) return std::nullopt;
  auto defaults = limitsOf(*limits);
  if (!defaults) return std::nullopt;
  ProxyOptions options;
  options.limits = std::move(*defaults);
  options.refuseUnknownFields = strict->get<bool>();
  std::size_t keys = 2;
  if (!readCents(*object, "velocityCentsPerMinute", options.velocityCentsPerMinute, keys) ||
      !readText(*object, "authorityPem", options.authorityPem, keys) ||
      !readText(*object, "outboundProxy", options.outboundProxy, keys) || keys != object->size()) {
    return std::nullopt;
  }
  return options;
}

}  // namespace sorvane::proxy
