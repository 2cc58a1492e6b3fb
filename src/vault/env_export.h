#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/secret_text.h"

namespace sorvane::vault {

enum class EnvExportFormat { env, json, shell };
std::string_view word(EnvExportFormat format);
std::optional<EnvExportFormat> envExportFormatOf(std::string_view word);

/// Turns rendered lines into the text to write or copy (docs/formats.md).
base::SecretText convertLines(std::span<const base::SecretText> lines, EnvExportFormat format);

/// One environment of an export of all of them: `lines`, or why nothing was written. `warnings` says which variables
/// the lines lack.
struct Exported {
  std::string name;
  std::optional<std::string> folder;
  std::optional<std::vector<base::SecretText>> lines;
  std::optional<std::string> refused;
  std::vector<std::string> warnings;
};

}  // namespace sorvane::vault
