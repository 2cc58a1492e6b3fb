#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string_view>

namespace sorvane::base {

using Json = nlohmann::json;

/// Deepest nesting of arrays and objects that parseJson accepts.
inline constexpr int kMaxJsonDepth = 32;

/// Parses one JSON text: strict UTF-8, no duplicate keys in an object (compared after escapes are undone), at most
/// kMaxJsonDepth levels, nothing but white space behind it. Anything else is nullopt.
std::optional<Json> parseJson(std::string_view text);

}  // namespace sorvane::base
