#include "agent/grant_store.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "base/codec.h"
#include "base/diagnostics.h"
#include "base/ids.h"
#include "base/json.h"
#include "base/json_writer.h"
#include "base/unicode.h"
#include "crypto/digest.h"
#include "vault/sealed_settings.h"
#include "vault/vault.h"

namespace sorvane::agent {
namespace {

constexpr std::uint64_t kMaxFileBytes = 1024 * 1024;
constexpr std::string_view kTokenPrefix = "svt_";
constexpr std::string_view kNotTrusted =
    "Agent connections were changed outside sorvane, so sorvane no longer trusts them. Reconnect each agent in "
    "Settings > Agents "
    "(on Linux: run sorvane, then Agent connections).";
constexpr std::string_view kNotConfirmed =
    "Agent connections of an earlier version were taken over and do not count yet. Check their labels, then run "
    "sorvane agent "
    "confirm.";

/// The sealed setting: the digests of the file that are trusted, and whether its labels were confirmed.
struct Seal {
  std::vector<std::string> digests;
  bool confirmed = true;
};

std::optional<Seal> readSeal(vault::SealedSettings& settings) {
  const auto text = settings.load(vault::kAgentClientsSetting);
  if (!text) return std::nullopt;
  Seal seal;
  const auto json = base::parseJson(text->view());
  if (!json || !json->is_object()) return seal;
  if (const auto digests = json->find("digests"); digests != json->end() && digests->is_array()) {
    for (const base::Json& digest : *digests) {
      if (digest.is_string()) seal.digests.push_back(digest.get<std::string>());
    }
  }
  const auto confirmed = json->find("confirmed");
  seal.confirmed = confirmed == json->end() || !confirmed->is_boolean() || confirmed->get<bool>();
  return seal;
}

void writeSeal(vault::SealedSettings& settings, const Seal& seal) {
  base::JsonWriter out;
  out.beginObject().key("confirmed").boolean(seal.confirmed).strings("digests", seal.digests).endObject();
  settings.save(vault::kAgentClientsSetting, out.view());
}

bool contains(const std::vector<std::string>& digests, const std::string& digest) {
  return std::find(digests.begin(), digests.end(), digest) != digests.end();
}

std::string key(std::string_view name) {
  return base::nfc(base::trimmed(name));
}

ClientGrant* byLabel(std::vector<ClientGrant>& grants, std::string_view label) {
  const auto found = std::find_if(grants.begin(), grants.end(), [&](const ClientGrant& g) { return g.label == label; });
  return found == grants.end() ? nullptr : &*found;
}

ClientGrant& needLabel(std::vector<ClientGrant>& grants, std::string_view label) {
  ClientGrant* const grant = byLabel(grants, label);
  if (grant == nullptr) {
    throw GrantsError("There is no agent connection labelled '" + std::string(label) +
                      "'. Nothing was changed. sorvane agent list shows the labels.");
  }
  return *grant;
}

base::SecretText newToken() {
  std::array<std::uint8_t, 32> bytes{};
  base::fillRandom(bytes);
  base::SecretText token(kTokenPrefix);
  std::string text = base::base64Url(bytes);
  token.append(text);
  base::wipe(text);
  base::wipe(bytes.data(), bytes.size());
  return token;
}

}  // namespace

GrantStore::GrantStore(std::filesystem::path file, base::Files& files, vault::Vault& vault, LegacySwitches switches)
    : file_(std::move(file)), files_(files), vault_(vault), switches_(std::move(switches)) {}

GrantStore::State GrantStore::load() {
  const auto contents = files_.read(file_, kMaxFileBytes);
  if (!contents) return {};
  const std::string_view text = base::textOf(contents->bytes);
  const auto seal = readSeal(vault_.settings());
  if (!seal) return takeOver(text);
  State state;
  state.digest = crypto::sha256Hex(contents->bytes);
  state.confirmed = seal->confirmed;
  auto grants = decodeGrants(text);
  state.trusted = contains(seal->digests, state.digest);
  if (grants) state.grants = std::move(*grants);
  // A stop while the earlier form was taken over left it in place, with its tokens in the clear.
  if (state.trusted && !grants) return takeOver(text);
  // A stop in the middle of a save left two digests; the file tells which of them holds.
  if (state.trusted && seal->digests.size() > 1) writeSeal(vault_.settings(), {{state.digest}, seal->confirmed});
  if (!state.trusted || settledGeneration_ == vault_.generation()) return state;
  return settled(std::move(state));
}

GrantStore::State GrantStore::takeOver(std::string_view text) {
  State state;
  const auto legacy = decodeLegacyGrants(text);
  if (!legacy) {
    // Nobody vouches for a file of the present form, and anything else holds no grants.
    state.trusted = !decodeGrants(text).has_value();
    return state;
  }
  state.grants = migrated(*legacy, switches_);
  state.confirmed = state.grants.empty();
  state.digest = crypto::sha256Hex(base::bytesOf(text));
  save(state);
  return state;
}

/// A scope whose environment is gone would come to life with the next environment of that name. Done once when a vault
/// was opened: later a scope may be ahead of the environment that is just being renamed.
GrantStore::State GrantStore::settled(State state) {
  const auto records = vault_.records();
  bool changed = false;
  for (ClientGrant& grant : state.grants) {
    if (!grant.environment || grant.environment->empty() || records->projectByName(*grant.environment)) continue;
    grant.environment = "";
    changed = true;
  }
  if (changed) save(state);
  settledGeneration_ = vault_.generation();
  return state;
}

void GrantStore::save(State& state) {
  const std::string text = encodeGrants(state.grants);
  const std::string digest = crypto::sha256Hex(base::bytesOf(text));
  Seal seal{{digest}, state.confirmed};
  if (!state.digest.empty() && state.trusted && state.digest != digest)
    seal.digests.insert(seal.digests.begin(), state.digest);
  writeSeal(vault_.settings(), seal);
  files_.writeAtomically(file_, base::bytesOf(text));
  if (seal.digests.size() > 1) writeSeal(vault_.settings(), {{digest}, state.confirmed});
  state.digest = digest;
  state.trusted = true;
  const base::Lock lock(mutex_);
  cached_.reset();
}

void GrantStore::say(const State& state) {
  const base::Lock lock(mutex_);
  if (!state.trusted && !said_) base::diagnose("agent", kNotTrusted);
  said_ = !state.trusted;
}

std::shared_ptr<const std::vector<ClientGrant>> GrantStore::current() {
  static const auto kNone = std::make_shared<const std::vector<ClientGrant>>();
  try {
    const auto identity = files_.identity(file_);
    if (!identity) return kNone;
    const std::string generation = vault_.generation();
    {
      const base::Lock lock(mutex_);
      if (cached_ && cachedIdentity_ == identity && cachedGeneration_ == generation) return cached_;
    }
    const base::Lock saving(saving_);
    State state = load();
    say(state);
    auto grants = state.trusted && state.confirmed
                      ? std::make_shared<const std::vector<ClientGrant>>(std::move(state.grants))
                      : kNone;
    const base::Lock lock(mutex_);
    // The identity from before the load: a file that changed meanwhile is loaded again.
    cachedIdentity_ = identity;
    cachedGeneration_ = generation;
    cached_ = grants;
    return grants;
  } catch (const base::Error& error) {
    base::diagnose("agent", "the agent connections could not be read, so none is trusted: " + error.sentence());
    return kNone;
  }
}

GrantStore::View GrantStore::view() {
  const base::Lock saving(saving_);
  State state = load();
  View view{std::move(state.grants), state.trusted && state.confirmed, {}};
  if (!state.trusted)
    view.sentence = kNotTrusted;
  else if (!state.confirmed)
    view.sentence = kNotConfirmed;
  return view;
}

void GrantStore::change(const std::function<void(std::vector<ClientGrant>&)>& edit) {
  const base::Lock saving(saving_);
  State state = load();
  if (!state.trusted) throw GrantsError(std::string(kNotTrusted));
  const std::vector<ClientGrant> before = state.grants;
  edit(state.grants);
  if (state.grants != before) save(state);
}

GrantStore::Added GrantStore::add(const NewGrant& grant, std::string_view replacing) {
  base::SecretText token = newToken();
  const base::Lock saving(saving_);
  State state = load();
  if (!state.confirmed) throw GrantsError(std::string(kNotConfirmed));
  if (!state.trusted) state.grants.clear();
  const auto held = std::find_if(state.grants.begin(), state.grants.end(), [&](const ClientGrant& other) {
    return other.label == grant.label && other.id != replacing;
  });
  if (held != state.grants.end()) {
    throw GrantsError("There already is an agent connection labelled '" + grant.label +
                      "'. Nothing was changed. Choose another label, or remove that one first.");
  }
  state.grants.push_back(
      {base::randomUuid(), tokenHash(token.view()), grant.label, grant.environment, grant.allowReveal, false});
  save(state);
  return {state.grants.back().id, std::move(token)};
}

void GrantStore::edit(std::string_view label, const std::function<void(ClientGrant&)>& edited) {
  change([&](std::vector<ClientGrant>& grants) {
    ClientGrant grant = needLabel(grants, label);
    edited(grant);
    if (grant.label != label && byLabel(grants, grant.label)) {
      throw GrantsError("There already is an agent connection labelled '" + grant.label + "'. Nothing was changed.");
    }
    needLabel(grants, label) = grant;
  });
}

void GrantStore::remove(std::string_view label) {
  change([&](std::vector<ClientGrant>& grants) {
    const std::string id = needLabel(grants, label).id;
    std::erase_if(grants, [&](const ClientGrant& grant) { return grant.id == id; });
  });
}

void GrantStore::removeById(std::string_view id) {
  change([&](std::vector<ClientGrant>& grants) {
    std::erase_if(grants, [&](const ClientGrant& grant) { return grant.id == id; });
  });
}

void GrantStore::noteAutoApprove(std::string_view id, bool autoApprove) {
  change([&](std::vector<ClientGrant>& grants) {
    for (ClientGrant& grant : grants) {
      if (grant.id == id) grant.autoApprove = autoApprove;
    }
  });
}

void GrantStore::confirm() {
  const base::Lock saving(saving_);
  State state = load();
  if (!state.trusted) throw GrantsError(std::string(kNotTrusted));
  if (state.confirmed) return;
  state.confirmed = true;
  save(state);
}

void GrantStore::environmentRemoved(std::string_view name) {
  moveScope(name, "");
}

void GrantStore::environmentRenamed(std::string_view from, std::string_view to) {
  moveScope(from, to);
}

void GrantStore::moveScope(std::string_view from, std::string_view to) {
  const base::Lock saving(saving_);
  State state = load();
  bool changed = false;
  for (ClientGrant& grant : state.grants) {
    if (!grant.environment || grant.environment->empty() || key(*grant.environment) != key(from)) continue;
    grant.environment = to;
    changed = true;
  }
  // A file that is not trusted stays as it is: the owner is still to see that somebody changed it.
  if (changed && state.trusted) save(state);
}

}  // namespace sorvane::agent
