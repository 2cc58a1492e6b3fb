#pragma once

#include <string_view>

#include "base/secret_text.h"

namespace sorvane::vault {

/// Appends NAME=value with the value written bare or between double quotes by the .env value rule (docs/formats.md).
void appendEnvLine(base::SecretText& out, std::string_view name, std::string_view value);

/// Undoes the rule for the part behind the first "=" of a line that appendEnvLine wrote.
base::SecretText envLineValue(std::string_view written);

}  // namespace sorvane::vault
