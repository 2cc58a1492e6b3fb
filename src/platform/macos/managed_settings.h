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
/// forces nothing. As in the user defaults, the texts "yes", "true" and "1" are true, in whichever case, and a value
/// that is neither a truth nor a number is false; `warn` is told of a value that nobody can have meant.
std::optional<bool> managedFollowsSession(std::string_view domain,
                                          const std::function<void(const std::string& sentence)>& warn);

}  // namespace sorvane::platform
