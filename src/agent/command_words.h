#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sorvane::agent {

inline constexpr std::size_t kMaxCommandWords = 1000;

/// Reads the words of a command from a JSON array of strings. nullopt unless there are 1 to kMaxCommandWords of them,
/// none with a NUL byte, and the first can only be read as a program: not empty, no "=" in it (an assignment for env)
/// and no "-" at its start (an option of env). Pure; takes foreign bytes.
std::optional<std::vector<std::string>> decodeCommandWords(std::string_view json);

}  // namespace sorvane::agent
