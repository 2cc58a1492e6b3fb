#pragma once

#include <cstddef>
#include <string>

#include "base/json.h"

namespace sorvane::cli {

/// Modules of the quiet zone around a QR code that readers want (ISO/IEC 18004, 9.1).
inline constexpr std::size_t kQuietModules = 4;

/// A QR code, given as rows of '1' (dark) and '0', for a terminal: two rows to a line in half blocks, dark on light
/// whatever the terminal's colours are, with its quiet zone.
/// Empty when the rows are no square.
std::string qrText(const base::Json& rows);

}  // namespace sorvane::cli
