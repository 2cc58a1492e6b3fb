#pragma once

#include <string_view>

namespace sorvane::platform {

// What the system knows this build by; set when it is configured.

/// Service of the items in the Keychain.
inline constexpr std::string_view kKeychainService = SORVANE_SERVICE;
/// Access group of the items, without the team's identifier; see ownAccessGroup.
inline constexpr std::string_view kAccessGroup = SORVANE_ACCESS_GROUP;
/// Identifier of the application's bundle, and the domain of its settings.
inline constexpr std::string_view kBundleIdentifier = SORVANE_BUNDLE_IDENTIFIER;

}  // namespace sorvane::platform
