#include "unlock/unlock_configuration.h"

#include <nlohmann/json.hpp>

#include "base/date.h"
#include "base/json_writer.h"
#include "unlock/record_json.h"

namespace sorvane::unlock {
namespace {

using base::Json;

using Case = UnlockError::Case;
/// The causes of a reset as they are stored.
constexpr std::pair<Case, std::string_view> kResetCauses[] = {{Case::settingsMissing, "settingsMissing"},
                                                              {Case::settingsDamaged, "settingsDamaged"},
                                                              {Case::vaultKeyMismatch, "vaultKeyMismatch"}};

/// False when there is one that nobody knows.
bool readResetCause(const Json& object, std::optional<Case>& cause) {
  const Json* const stored = memberOf(object, "resetCause");
  if (stored == nullptr) return true;
  for (const auto& [known, word] : kResetCauses) {
    if (stored->is_string() && stored->get_ref<const std::string&>() == word) cause = known;
  }
  return cause.has_value();
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

int strictness(PassphraseRequirement requirement) {
  switch (requirement) {
    case PassphraseRequirement::off:
      return 0;
    case PassphraseRequirement::only:
      return 1;
    case PassphraseRequirement::withSystem:
      return 2;
  }
  return 0;
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
  for (const auto& [cause, word] : kResetCauses) {
    if (configuration.resetCause == cause) json.field("resetCause", word);
  }
  json.endObject();
  return json.take();
}

Agreement agreementOf(const UnlockConfiguration& stored, const UnlockConfiguration& inForce) {
  if (stored.requirement != PassphraseRequirement::off && !stored.passphrase) return Agreement::damaged;
  const int more = strictness(stored.requirement) - strictness(inForce.requirement);
  if (more < 0 || (inForce.followsSession && !stored.followsSession)) return Agreement::damaged;
  return more > 0 ? Agreement::asksMore : Agreement::same;
}

std::optional<UnlockConfiguration> decodeConfiguration(std::string_view text) {
  const auto json = base::parseJson(text);
  if (!json || !json->is_object()) return std::nullopt;
  UnlockConfiguration configuration;
  if (const Json* const verifier = memberOf(*json, "passphrase")) {
    configuration.passphrase = readVerifier(*verifier);
    if (!configuration.passphrase) return std::nullopt;
  }
  const auto requirement = requirementAt(*json, "requirement");
  const auto follows = flagAt(*json, "followsSession");
  const auto attempts = countAt(*json, "failedAttempts", INT64_MAX);
  if (!requirement || !follows || !attempts) return std::nullopt;
  if (*requirement != PassphraseRequirement::off && !configuration.passphrase) return std::nullopt;
  configuration.requirement = *requirement;
  configuration.followsSession = *follows;
  configuration.failedAttempts = *attempts;
  if (!readDate(*json, "lastFailure", configuration.lastFailure)) return std::nullopt;
  if (!readResetCause(*json, configuration.resetCause)) return std::nullopt;
  return configuration;
}

}  // namespace sorvane::unlock
