#pragma once

#include <string_view>

namespace sorvane::vault {

/// Whether a variable of this name changes how programs start, load code or check TLS, so that it is left out of an
/// import and reaches a command only where its binding allows it. One table for both (docs/run-control-names.md lists
/// it).
bool isRunControlName(std::string_view name);

}  // namespace sorvane::vault
