#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/grants.h"
#include "base/secret_text.h"

namespace sorvane::agent {

/// The earlier form of a grant, with its token in the clear.
struct LegacyClientGrant {
  base::SecretText token;
  std::string label;
  std::optional<std::string> environment;
};

/// What the installed agent clients' own configurations say of a legacy grant, by the hash of its token.
struct ClientSwitches {
  bool allowReveal = false;
  bool autoApprove = false;
};
using LegacySwitches = std::map<std::string, ClientSwitches, std::less<>>;

/// Decoders of "agent_clients.json" in its two forms; nullopt for anything else. Pure, take foreign bytes.
std::optional<std::vector<ClientGrant>> decodeGrants(std::string_view text);
std::optional<std::vector<LegacyClientGrant>> decodeLegacyGrants(std::string_view text);

/// The grants whose tokens the installed clients still carry; the others are dropped.
std::vector<ClientGrant> migrated(const std::vector<LegacyClientGrant>& legacy, const LegacySwitches& switches);

}  // namespace sorvane::agent
