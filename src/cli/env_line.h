#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/secret_text.h"

namespace sorvane::cli {

/// One variable of an environment that sorvaned rendered.
struct EnvLine {
  std::string name;
  base::SecretText value;
};

/// Reads NAME=value as sorvaned renders it: the value bare, or between double quotes with the escapes \\ \" \$ \` \n \r
/// \t (docs/formats.md). nullopt for anything else, comment lines included.
std::optional<EnvLine> decodeEnvLine(std::string_view line);

}  // namespace sorvane::cli
