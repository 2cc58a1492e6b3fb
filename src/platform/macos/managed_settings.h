#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/macos/identity.h"

namespace sorvane::platform {

/// The domain of the user defaults in which an organization's profile sets what holds for every user, for now the one
/// key "UnlockFollowsSession", true or false.
inline constexpr std::string_view kManagedSettings = kBundleIdentifier;

/// What the organization forces about following the session; nullopt: nothing. What a person set with the same key
/// forces nothing. A forced value that cannot be understood is passed over after `warn` was told why.
std::optional<bool> managedFollowsSession(std::string_view domain,
                                          const std::function<void(const std::string& sentence)>& warn);

}  // namespace sorvane::platform
