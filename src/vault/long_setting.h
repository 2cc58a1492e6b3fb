#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace sorvane::vault {

class SealedSettings;

/// A sealed setting whose text may be longer than one item of the store takes: a longer text lies in parts of their
/// own, and the setting is a JSON array of their names, so that it changes as a whole. The text must not itself be a
/// JSON array of strings. Failures are SettingError.

/// nullopt when the setting was never saved; throws SettingError::storage with `damaged` when a part is gone.
std::optional<std::string> loadLongSetting(SealedSettings& settings, std::string_view name, const std::string& damaged);
/// A failure leaves the earlier text; old parts that cannot be removed are said on standard error and no failure.
void saveLongSetting(SealedSettings& settings, std::string_view name, std::string_view text);

}  // namespace sorvane::vault
