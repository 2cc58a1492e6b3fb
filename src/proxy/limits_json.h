#pragma once

#include <optional>

#include "base/json.h"
#include "base/json_writer.h"
#include "proxy/limits.h"

namespace sorvane::proxy {

// The limits as a part of a larger JSON document.

void write(base::JsonWriter& out, const ProxyDefaultLimits& limits);
/// nullopt when it is no object with these keys and types, and no others.
std::optional<ProxyDefaultLimits> limitsOf(const base::Json& object);

}  // namespace sorvane::proxy
