#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace sorvane::platform {

/// Where an organization writes what holds for every user of the computer: a JSON object, for now with the one member
/// "UnlockFollowsSession", true or false.
inline constexpr char kManagedSettings[] = "/etc/sorvane/managed.json";
/// The longest file that is read.
inline constexpr std::size_t kMaxManagedBytes = 65536;

/// What the file says about following the session; nullopt: nothing. Only a regular file that belongs to root and that
/// nobody else may write speaks for an organization; any other, and one that cannot be understood, is passed over after
/// `warn` was told why. No file is no warning.
std::optional<bool> managedFollowsSession(const std::filesystem::path& file,
                                          const std::function<void(const std::string& sentence)>& warn);

}  // namespace sorvane::platform
