#pragma once

#include <string_view>

#include "base/secret_text.h"

namespace sorvane::unlock {

/// The same JSON value with its members sorted by their bytes and without white space. Numbers stay as they are
/// written, since nobody here knows what they mean. Throws JsonCursor::Malformed, also for a member that is there
/// twice. `text` must be UTF-8.
base::SecretText canonicalJson(std::string_view text);

}  // namespace sorvane::unlock
