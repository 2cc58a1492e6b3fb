#include "vault/protected_keys.h"

#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>
#include <vector>

#include "base/json.h"
#include "base/json_writer.h"
#include "crypto/digest.h"
#include "vault/accounts.h"
#include "vault/long_setting.h"
#include "vault/sealed_settings.h"
#include "vault/secret_store.h"

namespace sorvane::vault {
namespace {

constexpr std::string_view kSavedMark = "1";
constexpr std::string_view kInPieces =
    "The settings of protected keys are damaged. Nothing was shared. Review and confirm them.";

std::string digestOf(std::string_view text) {
  return crypto::sha256Hex(base::bytesOf(text));
}

std::string encode(const LocalProxySettings& settings, std::int64_t serial) {
  base::JsonWriter out;
  out.beginObject().key("serial").integer(serial).key("protected").beginObject();
  for (const auto& [id, provider] : settings.protectedSecrets) out.field(id, word(provider));
  out.endObject().key("variables").beginObject();
  for (const auto& [environment, variables] : settings.variables) {
    out.key(environment).beginObject();
    for (const auto& [name, provider] : variables) out.field(name, word(provider));
    out.endObject();
  }
  out.endObject().field("options", std::string_view(settings.options)).endObject();
  return std::string(out.view());
}

struct Decoded {
  LocalProxySettings settings;
  std::int64_t serial = 0;
};

bool readProviders(const base::Json& json, const std::function<void(std::string, ProxyProvider)>& take) {
  if (!json.is_object()) return false;
  for (const auto& [key, value] : json.items()) {
    const auto provider = value.is_string() ? proxyProviderOf(value.get<std::string>()) : std::nullopt;
    if (!provider) return false;
    take(key, *provider);
  }
  return true;
}

std::optional<Decoded> decode(const std::string& text) {
  const auto json = base::parseJson(text);
  if (!json || !json->is_object()) return std::nullopt;
  const base::Json none;
  const auto at = [&](const char* name) -> const base::Json& {
    const auto found = json->find(name);
    return found == json->end() ? none : *found;
  };
  Decoded decoded;
  if (!at("serial").is_number_integer() || !at("options").is_string() || !at("variables").is_object()) {
    return std::nullopt;
  }
  decoded.serial = at("serial").get<std::int64_t>();
  decoded.settings.options = at("options").get<std::string>();
  auto& secrets = decoded.settings.protectedSecrets;
  if (!readProviders(at("protected"), [&](auto id, auto provider) { secrets.emplace(std::move(id), provider); })) {
    return std::nullopt;
  }
  for (const auto& [environment, variables] : at("variables").items()) {
    auto& names = decoded.settings.variables[environment];
    if (!readProviders(variables, [&](auto name, auto provider) { names.emplace(std::move(name), provider); })) {
      return std::nullopt;
    }
  }
  return decoded;
}

std::vector<std::string> digestsIn(const std::optional<base::SecretText>& witness) {
  std::vector<std::string> digests;
  const auto json = witness ? base::parseJson(witness->view()) : std::nullopt;
  if (!json || !json->is_array()) return digests;
  for (const base::Json& item : *json) {
    if (item.is_string()) digests.push_back(item.get<std::string>());
  }
  return digests;
}

void saveWitness(SealedSettings& settings, const std::vector<std::string>& digests) {
  base::JsonWriter out;
  out.beginArray();
  for (const std::string& digest : digests) out.string(digest);
  out.endArray();
  settings.save(kLocalProxyWitnessSetting, out.view());
}

std::int64_t serialIn(const std::optional<base::SecretText>& anchor) {
  const auto json = anchor ? base::parseJson(anchor->view()) : std::nullopt;
  return json && json->is_number_integer() ? json->get<std::int64_t>() : 0;
}

}  // namespace

ProtectionError ProtectionError::isProtected(std::string_view name) {
  return {"protected_key",
          "'" + std::string(name) +
              "' is a protected key: programs get a stand-in for it, never the key itself. Nothing was shared. Use "
              "run_with_env or a task session, or ask the user to remove the protection in sorvane."};
}

ProtectionError ProtectionError::keyInside() {
  return {"protected_key_inside",
          "A value in this environment contains a protected key, so sorvane holds it back. Nothing was shared. Ask the "
          "user to bind the key on its own, or to remove the protection in sorvane."};
}

ProtectionError ProtectionError::unclear(std::string_view variable) {
  return {"proxy_protection_unclear",
          std::string(variable) +
              " was bound to a protected key, and the key there now belongs to another provider, so sorvane cannot "
              "tell whether it should stay protected. Nothing was shared. Ask the user to review Settings > Agents > "
              "Protected keys."};
}

ProtectionError ProtectionError::settingsRemoved() {
  return {"proxy_settings_removed",
          "sorvane's protected key settings are missing or were changed outside sorvane, so provider keys in this "
          "environment are held back. Nothing was shared. Ask the user to open sorvane, review Settings > Agents > "
          "Protected keys, and confirm them."};
}

ProtectionError ProtectionError::twoKeys(ProxyProvider provider, std::string_view first, std::string_view second) {
  return {"proxy_two_keys", std::string(first) + " and " + std::string(second) +
                                " hold two different protected keys of " + std::string(shownName(provider)) +
                                ", and one stand-in can carry only one. Nothing was shared. Ask the user to bind one "
                                "of them in an environment of its own."};
}

struct ProtectedKeys::Stored {
  std::optional<std::string> text;
  std::vector<std::string> digests;
  std::int64_t leastSerial = 0;
  bool everSaved = false;
};

ProtectedKeys::Stored ProtectedKeys::readStored() {
  Stored stored;
  // What was sealed by somebody else, or is there in part only, is as good as gone, and a sign that it was there.
  const auto tryTo = [&](const auto& load) {
    try {
      load();
    } catch (const SettingError& error) {
      if (error.kind() != SettingError::Case::wrongKey && error.sentence() != kInPieces) throw;
      stored.everSaved = true;
    }
  };
  tryTo([&] {
    const auto anchor = settings_.load(kLocalProxyAnchorSetting);
    stored.leastSerial = serialIn(anchor);
    stored.everSaved |= anchor.has_value();
  });
  tryTo([&] { stored.digests = digestsIn(settings_.load(kLocalProxyWitnessSetting)); });
  tryTo([&] { stored.text = loadLongSetting(settings_, kLocalProxySetting, std::string(kInPieces)); });
  stored.everSaved |= !stored.digests.empty() || stored.text;
  if (stored.everSaved) return stored;
  try {
    store_.read(kLocalProxySavedAccount);
    stored.everSaved = true;
  } catch (const SecretStoreError& error) {
    if (error.kind() != SecretStoreError::Case::notFound) {
      throw SettingError(SettingError::Case::storage, error.sentence());
    }
  }
  return stored;
}

void ProtectedKeys::read() {
  const Stored stored = readStored();
  const bool wasRead = std::exchange(wasRead_, true);
  if (!known_.settings) known_.settings = std::make_shared<const LocalProxySettings>();
  const std::string digest = stored.text ? digestOf(*stored.text) : std::string();
  const bool isWitnessed = std::find(stored.digests.begin(), stored.digests.end(), digest) != stored.digests.end();
  const auto decoded = stored.text ? decode(*stored.text) : std::nullopt;
  const bool isOlder = decoded && decoded->serial < std::max(serial_, stored.leastSerial);
  if (decoded && isWitnessed && !isOlder) {
    known_.state = ProtectionState::present;
    serial_ = decoded->serial;
    if (!(decoded->settings == *known_.settings)) {
      known_.settings = std::make_shared<const LocalProxySettings>(decoded->settings);
    }
    return;
  }
  // A first save that was cut off left marks behind, and nothing that they speak of.
  const bool cutOffAtFirst = !stored.text && isWitnessed && stored.leastSerial == 0;
  const bool neverSaved = (!stored.everSaved || cutOffAtFirst) && serial_ == 0;
  known_.state = neverSaved ? ProtectionState::none : ProtectionState::removed;
  if (!wasRead && decoded) known_.settings = std::make_shared<const LocalProxySettings>(decoded->settings);
}

void ProtectedKeys::write(const LocalProxySettings& settings) {
  const Stored stored = readStored();
  const auto& before = stored.text;
  const auto decoded = before ? decode(*before) : std::nullopt;
  // Above every number that was ever seen, so that nothing earlier that is put back can pass for these.
  const std::int64_t serial = std::max({serial_, stored.leastSerial, decoded ? decoded->serial : 0}) + 1;
  const std::string text = encode(settings, serial);
  saveWitness(settings_, {before ? digestOf(*before) : std::string(), digestOf(text)});
  store_.store(kLocalProxySavedAccount, base::SecretText(kSavedMark));
  try {
    saveLongSetting(settings_, kLocalProxySetting, text);
  } catch (const SettingError& error) {
    if (error.kind() != SettingError::Case::wrongKey) throw;
    settings_.remove(kLocalProxySetting);
    saveLongSetting(settings_, kLocalProxySetting, text);
  }
  // They are in force from here on, whatever becomes of the rest.
  serial_ = serial;
  known_ = {ProtectionState::present, std::make_shared<const LocalProxySettings>(settings)};
  wasRead_ = true;
  settings_.save(kLocalProxyAnchorSetting, std::to_string(serial));
  saveWitness(settings_, {digestOf(text)});
}

ProtectedKeys::Known ProtectedKeys::known() {
  const base::Lock lock(proxySettingsSaveLock_);
  if (!wasRead_) read();
  return known_;
}

ProtectedKeys::Known ProtectedKeys::verified() {
  const base::Lock lock(proxySettingsSaveLock_);
  read();
  return known_;
}

void ProtectedKeys::save(const LocalProxySettings& settings) {
  const base::Lock lock(proxySettingsSaveLock_);
  read();
  if (known_.state == ProtectionState::removed) throw ProtectionError::settingsRemoved();
  write(settings);
}

void ProtectedKeys::confirm() {
  const base::Lock lock(proxySettingsSaveLock_);
  read();
  write(*known_.settings);
}

}  // namespace sorvane::vault
