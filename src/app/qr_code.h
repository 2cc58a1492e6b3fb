#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace sorvane::app {

/// The text as a QR code of the lowest error correction: one string of '1' (dark) and '0' for each row, without the
/// quiet zone. Empty where it could not be made. The matrix is made here, where the helper program, which is linked
/// statically, would need a static library that distributions do not ship.
std::vector<std::string> qrCode(std::string_view text);

}  // namespace sorvane::app
