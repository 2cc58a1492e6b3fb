#include "unlock/unlock_configuration.h"

#include <nlohmann/json.hpp>

#include "base/codec.h"
#include "base/date.h"
#include "base/json.h"
#include "base/json_writer.h"

namespace sorvane::unlock {
namespace {

using base::Json;

/// The member of an object, or nullptr.
const Json* member(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found == object.end() || found->is_null() ? nullptr : &*found;
}

std::optional<base::Bytes> bytesAt(const Json& object, const char* key) {
  const Json* const value = member(object, key);
  if (value == nullptr || !value->is_string()) return std::nullopt;
  return base::parseBase64(value->get_ref<const std::string&>());
}

/// A whole number from 0 to `limit`.
std::optional<std::int64_t> countAt(const Json& object, const char* key, std::int64_t limit) {
  const Json* const value = member(object, key);
  if (value == nullptr || !value->is_number_unsigned()) return std::nullopt;
  const auto number = value->get<std::uint64_t>();
  if (number > static_cast<std::uint64_t>(limit)) return std::nullopt;
  return static_cast<std::int64_t>(number);
}

std::optional<PassphraseVerifier> readVerifier(const Json& object) {
  if (!object.is_object()) return std::nullopt;
  auto salt = bytesAt(object, "salt"), hash = bytesAt(object, "hash");
  const auto memory = countAt(object, "memoryKiB", UINT32_MAX), iterations = countAt(object, "iterations", UINT32_MAX);
  if (!salt || !hash || !memory || !iterations) return std::nullopt;
  PassphraseVerifier verifier{*std::move(salt), *std::move(hash), static_cast<std::uint32_t>(*memory),
                              static_cast<std::uint32_t>(*iterations)};
  if (!verifier.isComputable()) return std::nullopt;
  return verifier;
}

std::optional<PassphraseRequirement> readRequirement(const Json& object) {
  const Json* const value = member(object, "requirement");
  if (value == nullptr || !value->is_string()) return std::nullopt;
  return passphraseRequirementOf(value->get_ref<const std::string&>());
}

}  // namespace

std::string_view word(PassphraseRequirement requirement) {
  switch (requirement) {
    case PassphraseRequirement::off:
      return "off";
    case PassphraseRequirement::withSystem:
      return "withSystem";
    case PassphraseRequirement::only:
      return "only";
  }
  return {};
}

std::optional<PassphraseRequirement> passphraseRequirementOf(std::string_view text) {
  for (const PassphraseRequirement requirement : kPassphraseRequirements) {
    if (word(requirement) == text) return requirement;
  }
  return std::nullopt;
}

base::SecretText encodeConfiguration(const UnlockConfiguration& configuration) {
  base::JsonWriter json;
  json.beginObject();
  if (const auto& verifier = configuration.passphrase) {
    json.key("passphrase").beginObject();
    json.key("salt").base64(verifier->salt).key("hash").base64(verifier->hash);
    json.key("memoryKiB").integer(verifier->memoryKiB).key("iterations").integer(verifier->iterations);
    json.endObject();
  }
  json.field("requirement", word(configuration.requirement));
  json.key("followsSession").boolean(configuration.followsSession);
  json.key("failedAttempts").integer(configuration.failedAttempts);
  if (configuration.lastFailure) json.field("lastFailure", base::iso8601(*configuration.lastFailure));
  json.endObject();
  return json.take();
}

std::optional<UnlockConfiguration> decodeConfiguration(std::string_view text) {
  const auto json = base::parseJson(text);
  if (!json || !json->is_object()) return std::nullopt;
  UnlockConfiguration configuration;
  if (const Json* const verifier = member(*json, "passphrase")) {
    configuration.passphrase = readVerifier(*verifier);
    if (!configuration.passphrase) return std::nullopt;
  }
  const auto requirement = readRequirement(*json);
  const Json* const follows = member(*json, "followsSession");
  const auto attempts = countAt(*json, "failedAttempts", INT64_MAX);
  if (!requirement || follows == nullptr || !follows->is_boolean() || !attempts) return std::nullopt;
  if (*requirement != PassphraseRequirement::off && !configuration.passphrase) return std::nullopt;
  configuration.requirement = *requirement;
  configuration.followsSession = follows->get<bool>();
  configuration.failedAttempts = *attempts;
  if (const Json* const failure = member(*json, "lastFailure")) {
    if (!failure->is_string()) return std::nullopt;
    configuration.lastFailure = base::parseIso8601(failure->get_ref<const std::string&>());
    if (!configuration.lastFailure) return std::nullopt;
  }
  return configuration;
}

}  // namespace sorvane::unlock
