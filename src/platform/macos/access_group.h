#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace sorvane::platform {

/// The access group of the Keychain that this process was signed for: the entry of its own entitlement that is `wanted`
/// or ends with "." and `wanted`, which is how a team's identifier stands before it. nullopt for a process that was not
/// signed for it; the data-protection Keychain then takes nothing from it.
std::optional<std::string> ownAccessGroup(std::string_view wanted);

}  // namespace sorvane::platform
