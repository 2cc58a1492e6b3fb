#pragma once

#include <string>
#include <string_view>

namespace sorvane::platform {

/// The reason of a question as a person reads it: its lines with control characters escaped, and a full stop behind one
/// that is a single line without any.
std::string reasonText(std::string_view reason);

}  // namespace sorvane::platform
