#include "agent/grants.h"

#include <nlohmann/json.hpp>

#include "agent/grant_book.h"
#include "agent/grant_file.h"
#include "base/ids.h"
#include "base/json.h"
#include "base/json_writer.h"
#include "crypto/digest.h"

namespace sorvane::agent {
namespace {

using base::Json;

const std::string* textAt(const Json& object, const char* name) {
  const auto found = object.find(name);
  return found == object.end() || !found->is_string() ? nullptr : &found->get_ref<const std::string&>();
}

/// False when the field is there and neither text nor null.
bool readScope(const Json& object, std::optional<std::string>& scope) {
  const auto found = object.find("environment");
  if (found == object.end() || found->is_null()) return true;
  if (!found->is_string()) return false;
  scope = found->get<std::string>();
  return true;
}

std::optional<ClientGrant> grantOf(const Json& object) {
  if (!object.is_object()) return std::nullopt;
  const auto *id = textAt(object, "id"), *hash = textAt(object, "tokenHash"), *label = textAt(object, "label");
  const auto reveal = object.find("allowReveal"), approve = object.find("autoApprove");
  if (!id || !hash || !label || reveal == object.end() || !reveal->is_boolean() || approve == object.end() ||
      !approve->is_boolean()) {
    return std::nullopt;
  }
  ClientGrant grant{*id, *hash, *label, {}, reveal->get<bool>(), approve->get<bool>()};
  if (!readScope(object, grant.environment)) return std::nullopt;
  return grant;
}

std::optional<LegacyClientGrant> legacyGrantOf(const Json& object) {
  if (!object.is_object()) return std::nullopt;
  const auto *token = textAt(object, "token"), *label = textAt(object, "label");
  if (!token || !label) return std::nullopt;
  LegacyClientGrant grant{base::SecretText(*token), *label, {}};
  if (!readScope(object, grant.environment)) return std::nullopt;
  return grant;
}

template <typename Grant, std::optional<Grant> (*read)(const Json&)>
std::optional<std::vector<Grant>> decodeArray(std::string_view text) {
  const auto json = base::parseJson(text);
  if (!json || !json->is_array()) return std::nullopt;
  std::vector<Grant> grants;
  for (const Json& item : *json) {
    auto grant = read(item);
    if (!grant) return std::nullopt;
    grants.push_back(std::move(*grant));
  }
  return grants;
}

}  // namespace

std::string tokenHash(std::string_view token) {
  return crypto::sha256Hex(base::bytesOf(token));
}

std::string encodeGrants(const std::vector<ClientGrant>& grants) {
  base::JsonWriter out(base::JsonWriter::Style::pretty);
  out.beginArray();
  for (const ClientGrant& grant : grants) {
    out.beginObject().field("id", grant.id).field("tokenHash", grant.tokenHash).field("label", grant.label);
    out.field("environment", grant.environment).key("allowReveal").boolean(grant.allowReveal);
    out.key("autoApprove").boolean(grant.autoApprove).endObject();
  }
  out.endArray();
  return std::string(out.view());
}

std::optional<std::vector<ClientGrant>> decodeGrants(std::string_view text) {
  return decodeArray<ClientGrant, grantOf>(text);
}

std::optional<std::vector<LegacyClientGrant>> decodeLegacyGrants(std::string_view text) {
  return decodeArray<LegacyClientGrant, legacyGrantOf>(text);
}

std::vector<ClientGrant> migrated(const std::vector<LegacyClientGrant>& legacy, const LegacySwitches& switches) {
  std::vector<ClientGrant> grants;
  for (const LegacyClientGrant& old : legacy) {
    const auto known = switches.find(tokenHash(old.token.view()));
    if (known == switches.end()) continue;
    grants.push_back({base::randomUuid(), known->first, old.label, old.environment, known->second.allowReveal,
                      known->second.autoApprove});
  }
  return grants;
}

const ClientGrant* findByTokenHash(const std::vector<ClientGrant>& grants, std::string_view tokenHash) {
  const ClientGrant* found = nullptr;
  for (const ClientGrant& grant : grants) {
    if (base::sameInConstantTime(grant.tokenHash, tokenHash)) found = &grant;
  }
  return found;
}

}  // namespace sorvane::agent
